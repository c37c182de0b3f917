// FakeBackend: a scripted service for hermetic tests.
//
// Every call is recorded with its function name and its arguments (a mapping from argument
// name to value, in the function's argument order), so a test can assert exact call
// sequences. A call is answered, in this order of precedence, by: a pending failure
// (fail()), the next scripted answer (script()), the handler (on()), the fixed answer
// (answer()). A call with none of these is a RuntimeError saying so.
#pragma once

#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "korvalin_client/com/backend.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/minio.hpp"

namespace korvalin_client::testing {

struct Call {
  std::string name;
  Value args;  // argument name -> value
};

// The calls a fake received, and the failures it was told to give.
class CallLog {
 public:
  std::vector<Call> calls() const;
  std::vector<Call> calls_of(const std::string& name) const;
  std::vector<std::string> call_names() const;
  int count(const std::string& name) const { return static_cast<int>(calls_of(name).size()); }
  void clear_calls();
  // The next `times` calls of `name` fail with a RuntimeError carrying `message`.
  void fail(const std::string& name, int times, std::string message = "service unavailable");

 protected:
  // With mutex_ held: records the call, then throws if a failure of `name` is pending.
  void record(const std::string& name, Value args);

  mutable std::mutex mutex_;

 private:
  std::vector<Call> calls_;
  std::map<std::string, std::pair<int, std::string>> failures_;
};

// An in-memory object store. upload() keeps the bytes and returns the locator
// {"bucket": category, "object": object_name, "n": upload count}; download() returns the
// bytes stored under a locator (put() stores bytes under any locator, e.g. a chunk
// descriptor), or asks the download handler.
class FakeObjectStore : public com::minio::MinIOAPI, public CallLog {
 public:
  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override;
  Bytes download(const Value& locator) override;

  void put(const Value& locator, Bytes data);
  void fail_downloads(int times, std::string message = "object store unavailable") {
    fail("download", times, std::move(message));
  }
  // Answers downloads of locators that were not put() or uploaded.
  void on_download(std::function<Bytes(const Value&)> handler);
  // The bytes stored under `locator` (a RuntimeError if none).
  Bytes stored(const Value& locator) const;

 private:
  std::map<std::string, Bytes> objects_;  // locator dump -> bytes
  int uploads_ = 0;
  std::function<Bytes(const Value&)> handler_;
};

// FAKE_OP(name, a, b, ...) overrides `Value name(const Value& a, const Value& b, ...)` with a
// call of dispatch() that records {"a": a, "b": b, ...}.
#define FAKE_P1(a) const Value& a
#define FAKE_P2(a, ...) FAKE_P1(a), FAKE_P1(__VA_ARGS__)
#define FAKE_P3(a, ...) FAKE_P1(a), FAKE_P2(__VA_ARGS__)
#define FAKE_P4(a, ...) FAKE_P1(a), FAKE_P3(__VA_ARGS__)
#define FAKE_P5(a, ...) FAKE_P1(a), FAKE_P4(__VA_ARGS__)
#define FAKE_P6(a, ...) FAKE_P1(a), FAKE_P5(__VA_ARGS__)
#define FAKE_P7(a, ...) FAKE_P1(a), FAKE_P6(__VA_ARGS__)
#define FAKE_P8(a, ...) FAKE_P1(a), FAKE_P7(__VA_ARGS__)
#define FAKE_P9(a, ...) FAKE_P1(a), FAKE_P8(__VA_ARGS__)
#define FAKE_P10(a, ...) FAKE_P1(a), FAKE_P9(__VA_ARGS__)
#define FAKE_P11(a, ...) FAKE_P1(a), FAKE_P10(__VA_ARGS__)
#define FAKE_PICK(_1, _2, _3, _4, _5, _6, _7, _8, _9, _10, _11, N, ...) N
#define FAKE_PARAMS(...)                                                                           \
  FAKE_PICK(__VA_ARGS__, FAKE_P11, FAKE_P10, FAKE_P9, FAKE_P8, FAKE_P7, FAKE_P6, FAKE_P5, FAKE_P4, \
            FAKE_P3, FAKE_P2, FAKE_P1)                                                             \
  (__VA_ARGS__)
#define FAKE_OP(name, ...)                               \
  Value name(FAKE_PARAMS(__VA_ARGS__)) override {        \
    return dispatch(#name, #__VA_ARGS__, {__VA_ARGS__}); \
  }

class FakeBackend : public com::Backend, public CallLog {
 public:
  using Handler = std::function<Value(const Value& args)>;

  void on(const std::string& name, Handler handler);
  void answer(const std::string& name, Value value);
  void script(const std::string& name, std::vector<Value> answers);

  // The object store that get_minio_client() hands out.
  std::shared_ptr<FakeObjectStore> store = std::make_shared<FakeObjectStore>();

  std::string connection_type() const override { return "fake"; }
  // Empty by default: the cache root stays the one the test installed.
  std::string identity;
  std::string service_identity() const override { return identity; }
  std::shared_ptr<com::minio::MinIOAPI> get_minio_client(const Value& organization_id) override;

  FAKE_OP(get_group_list, page, per_page, org_id, show_hidden)
  FAKE_OP(create_group, device_group_name, description, organization_id)
  FAKE_OP(get_group_detail, device_group_name)
  FAKE_OP(list_space, group_name, page, per_page, show_hidden_space)
  FAKE_OP(create_space, group_name, space_name, description)
  FAKE_OP(get_space_detail, space_id)
  FAKE_OP(set_space_hidden, space_id, hidden)
  FAKE_OP(get_parameter, space_id, timestamp, parent_category)
  FAKE_OP(get_parameter_log, space_id, timestamp)
  FAKE_OP(add_parameter, space_id, keys, values, types, experiment_id, node_id, session_id)
  FAKE_OP(delete_parameter, space_id, key, delete_status)
  FAKE_OP(get_parameter_tree, space_id, version, parent_tree)
  FAKE_OP(get_parameter_history, space_id, key, page, per_page)
  FAKE_OP(create_sub_process, organization_id, group_name, space_id, title, desc, resource_id,
          source, space_timestamp, template_name, exp_folder_id, priority)
  FAKE_OP(get_sub_process_detail, sub_process_id)
  FAKE_OP(get_sub_process_result, sub_process_id, start_piece_id, end_piece_id)
  FAKE_OP(get_sub_process_msg, sub_process_id)
  FAKE_OP(list_sub_processes, space_id, page, per_page)
  FAKE_OP(list_new_experiments, space_id, since_exp_id, exp_folder_id, limit)
  FAKE_OP(list_sub_processes_by_folder, space_id, exp_folder_id, before_exp_id, limit)
  FAKE_OP(count_experiments_by_folder, space_id, exp_folder_id)
  FAKE_OP(terminate_sub_process, sub_process_id)
  FAKE_OP(download_result_chunk_from_cache, sub_process_id, chunk_id)
  FAKE_OP(create_exp_folder, space_id, exp_folder_name, parent_exp_folder_id)
  FAKE_OP(list_exp_folders_by_parent, device_group_name, space_id, parent_exp_folder_id)
  FAKE_OP(add_fitting_result, sub_process_id, space_id, big_img_id, small_img_id, fitting_result)
  FAKE_OP(get_fitting_result, sub_process_id)
  FAKE_OP(add_resource, file_name, file_format, uri, category, source, device_group_id)
  FAKE_OP(get_resource_info, resource_ids)
  FAKE_OP(check_device_permission_by_name, group_name, access)
  FAKE_OP(check_space_permission_by_id, space_id)

 private:
  // Records the call as {name: value} from the names as written ("a, b") and the values.
  Value dispatch(const char* name, const char* arg_names,
                 std::initializer_list<std::reference_wrapper<const Value>> values);

  std::map<std::string, Handler> handlers_;
  std::map<std::string, Value> answers_;
  std::map<std::string, std::deque<Value>> scripts_;
};

// Installs a backend for the lifetime of a test (a fresh FakeBackend unless given one) and
// restores the previous backend.
template <class B = FakeBackend>
class ScopedBackend {
 public:
  explicit ScopedBackend(std::shared_ptr<B> b = std::make_shared<B>())
      : backend(std::move(b)), previous_(com::connection_manager::set_backend(backend)) {}
  ~ScopedBackend() { com::connection_manager::set_backend(previous_); }
  ScopedBackend(const ScopedBackend&) = delete;
  ScopedBackend& operator=(const ScopedBackend&) = delete;

  B* operator->() const { return backend.get(); }
  B& operator*() const { return *backend; }

  std::shared_ptr<B> backend;

 private:
  std::shared_ptr<com::Backend> previous_;
};
using ScopedFakeBackend = ScopedBackend<FakeBackend>;

}  // namespace korvalin_client::testing
