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

// An in-memory object store. upload() keeps the bytes and returns the locator
// {"bucket": category, "object": object_name, "n": upload count}; download() returns the
// bytes stored under a locator (put() stores bytes under any locator, e.g. a chunk
// descriptor), or asks the download handler.
class FakeObjectStore : public com::minio::MinIOAPI {
 public:
  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override;
  Bytes download(const Value& locator) override;

  void put(const Value& locator, Bytes data);
  // The next `times` downloads fail with a RuntimeError carrying `message`.
  void fail_downloads(int times, std::string message = "object store unavailable");
  // Answers downloads of locators that were not put() or uploaded.
  void on_download(std::function<Bytes(const Value&)> handler);

  std::vector<Call> calls() const;
  int count(const std::string& name) const;
  // The bytes stored under `locator` (a RuntimeError if none).
  Bytes stored(const Value& locator) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, Bytes> objects_;  // locator dump -> bytes
  std::vector<Call> calls_;
  int uploads_ = 0;
  int failures_ = 0;
  std::string failure_message_;
  std::function<Bytes(const Value&)> handler_;
};

class FakeBackend : public com::Backend {
 public:
  using Handler = std::function<Value(const Value& args)>;

  FakeBackend();

  void on(const std::string& name, Handler handler);
  void answer(const std::string& name, Value value);
  void script(const std::string& name, std::vector<Value> answers);
  // The next `times` calls of `name` fail with a RuntimeError carrying `message`.
  void fail(const std::string& name, int times, std::string message = "service unavailable");

  std::vector<Call> calls() const;
  std::vector<Call> calls_of(const std::string& name) const;
  std::vector<std::string> call_names() const;
  int count(const std::string& name) const;
  void clear_calls();

  // The object store that get_minio_client() hands out.
  std::shared_ptr<FakeObjectStore> store = std::make_shared<FakeObjectStore>();

  std::string connection_type() const override { return "fake"; }
  // Empty by default: the cache root stays the one the test installed.
  std::string identity;
  std::string service_identity() const override { return identity; }

  Value get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                       const Value& show_hidden) override;
  Value create_group(const Value& device_group_name, const Value& description,
                     const Value& organization_id) override;
  Value get_group_detail(const Value& device_group_name) override;
  Value list_space(const Value& group_name, const Value& page, const Value& per_page,
                   const Value& show_hidden_space) override;
  Value create_space(const Value& group_name, const Value& space_name,
                     const Value& description) override;
  Value get_space_detail(const Value& space_id) override;
  Value set_space_hidden(const Value& space_id, const Value& hidden) override;
  Value get_parameter(const Value& space_id, const Value& timestamp,
                      const Value& parent_category) override;
  Value get_parameter_log(const Value& space_id, const Value& timestamp) override;
  Value add_parameter(const Value& space_id, const Value& keys, const Value& values,
                      const Value& types, const Value& experiment_id, const Value& node_id,
                      const Value& session_id) override;
  Value delete_parameter(const Value& space_id, const Value& key,
                         const Value& delete_status) override;
  Value get_parameter_tree(const Value& space_id, const Value& version,
                           const Value& parent_tree) override;
  Value get_parameter_history(const Value& space_id, const Value& key, const Value& page,
                              const Value& per_page) override;
  Value create_sub_process(const Value& organization_id, const Value& group_name,
                           const Value& space_id, const Value& title, const Value& desc,
                           const Value& resource_id, const Value& source,
                           const Value& space_timestamp, const Value& template_name,
                           const Value& exp_folder_id, const Value& priority) override;
  Value get_sub_process_detail(const Value& sub_process_id) override;
  Value get_sub_process_result(const Value& sub_process_id, const Value& start_piece_id,
                               const Value& end_piece_id) override;
  Value get_sub_process_msg(const Value& sub_process_id) override;
  Value list_sub_processes(const Value& space_id, const Value& page,
                           const Value& per_page) override;
  Value list_new_experiments(const Value& space_id, const Value& since_exp_id,
                             const Value& exp_folder_id, const Value& limit) override;
  Value list_sub_processes_by_folder(const Value& space_id, const Value& exp_folder_id,
                                     const Value& before_exp_id, const Value& limit) override;
  Value count_experiments_by_folder(const Value& space_id, const Value& exp_folder_id) override;
  Value terminate_sub_process(const Value& sub_process_id) override;
  Value download_result_chunk_from_cache(const Value& sub_process_id,
                                         const Value& chunk_id) override;
  Value create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                          const Value& parent_exp_folder_id) override;
  Value list_exp_folders_by_parent(const Value& device_group_name, const Value& space_id,
                                   const Value& parent_exp_folder_id) override;
  Value add_fitting_result(const Value& sub_process_id, const Value& space_id,
                           const Value& big_img_id, const Value& small_img_id,
                           const Value& fitting_result) override;
  Value get_fitting_result(const Value& sub_process_id) override;
  Value add_resource(const Value& file_name, const Value& file_format, const Value& uri,
                     const Value& category, const Value& source,
                     const Value& device_group_id) override;
  Value get_resource_info(const Value& resource_ids) override;
  std::shared_ptr<com::minio::MinIOAPI> get_minio_client(const Value& organization_id) override;
  Value check_device_permission_by_name(const Value& group_name, const Value& access) override;
  Value check_space_permission_by_id(const Value& space_id) override;

 private:
  Value dispatch(const char* name, Value args);

  mutable std::mutex mutex_;
  std::vector<Call> calls_;
  std::map<std::string, Handler> handlers_;
  std::map<std::string, Value> answers_;
  std::map<std::string, std::deque<Value>> scripts_;
  std::map<std::string, std::pair<int, std::string>> failures_;
};

// Installs a fresh FakeBackend for the lifetime of a test and restores the previous backend.
class ScopedFakeBackend {
 public:
  ScopedFakeBackend()
      : backend(std::make_shared<FakeBackend>()),
        previous_(com::connection_manager::set_backend(backend)) {}
  ~ScopedFakeBackend() { com::connection_manager::set_backend(previous_); }
  ScopedFakeBackend(const ScopedFakeBackend&) = delete;
  ScopedFakeBackend& operator=(const ScopedFakeBackend&) = delete;

  FakeBackend* operator->() const { return backend.get(); }
  FakeBackend& operator*() const { return *backend; }

  std::shared_ptr<FakeBackend> backend;

 private:
  std::shared_ptr<com::Backend> previous_;
};

}  // namespace korvalin_client::testing
