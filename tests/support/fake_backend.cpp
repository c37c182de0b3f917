#include "support/fake_backend.hpp"

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::testing {

// ---- FakeObjectStore ----------------------------------------------------------------------

Value FakeObjectStore::upload(const std::string& object_name, const Bytes& data,
                              const std::string& category, const std::string& format) {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.push_back({"upload", Value::object({{"object_name", object_name},
                                             {"size", data.size()},
                                             {"category", category},
                                             {"format", format}})});
  const Value locator = Value::object({{"bucket", category}, {"object", object_name}, {"n", ++uploads_}});
  objects_[locator.dump()] = data;
  return locator;
}

Bytes FakeObjectStore::download(const Value& locator) {
  std::function<Bytes(const Value&)> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({"download", Value::object({{"locator", locator}})});
    if (failures_ > 0) {
      --failures_;
      throw RuntimeError(failure_message_);
    }
    auto it = objects_.find(locator.dump());
    if (it != objects_.end()) return it->second;
    handler = handler_;
  }
  if (handler) return handler(locator);
  throw RuntimeError("FakeObjectStore: no object at " + locator.dump());
}

void FakeObjectStore::put(const Value& locator, Bytes data) {
  std::lock_guard<std::mutex> lock(mutex_);
  objects_[locator.dump()] = std::move(data);
}

void FakeObjectStore::fail_downloads(int times, std::string message) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_ = times;
  failure_message_ = std::move(message);
}

void FakeObjectStore::on_download(std::function<Bytes(const Value&)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handler_ = std::move(handler);
}

std::vector<Call> FakeObjectStore::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

int FakeObjectStore::count(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& c : calls_) n += c.name == name;
  return n;
}

Bytes FakeObjectStore::stored(const Value& locator) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = objects_.find(locator.dump());
  if (it == objects_.end()) throw RuntimeError("FakeObjectStore: no object at " + locator.dump());
  return it->second;
}

// ---- FakeBackend --------------------------------------------------------------------------

FakeBackend::FakeBackend() = default;

void FakeBackend::on(const std::string& name, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handlers_[name] = std::move(handler);
}

void FakeBackend::answer(const std::string& name, Value value) {
  std::lock_guard<std::mutex> lock(mutex_);
  answers_[name] = std::move(value);
}

void FakeBackend::script(const std::string& name, std::vector<Value> answers) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto& queue = scripts_[name];
  for (auto& a : answers) queue.push_back(std::move(a));
}

void FakeBackend::fail(const std::string& name, int times, std::string message) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_[name] = {times, std::move(message)};
}

std::vector<Call> FakeBackend::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<Call> FakeBackend::calls_of(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<Call> out;
  for (const auto& c : calls_)
    if (c.name == name) out.push_back(c);
  return out;
}

std::vector<std::string> FakeBackend::call_names() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& c : calls_) out.push_back(c.name);
  return out;
}

int FakeBackend::count(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (const auto& c : calls_) n += c.name == name;
  return n;
}

void FakeBackend::clear_calls() {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
}

Value FakeBackend::dispatch(const char* name, Value args) {
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({name, args});
    if (auto f = failures_.find(name); f != failures_.end() && f->second.first > 0) {
      --f->second.first;
      throw RuntimeError(f->second.second);
    }
    if (auto s = scripts_.find(name); s != scripts_.end() && !s->second.empty()) {
      Value v = std::move(s->second.front());
      s->second.pop_front();
      return v;
    }
    if (auto h = handlers_.find(name); h != handlers_.end()) {
      handler = h->second;
    } else if (auto a = answers_.find(name); a != answers_.end()) {
      return a->second;
    } else {
      throw RuntimeError(std::string("FakeBackend: nothing scripted for ") + name);
    }
  }
  // The handler runs unlocked, so it may block or call back into the backend.
  return handler(args);
}

#define KV(name) {#name, name}

Value FakeBackend::get_group_list(const Value& page, const Value& per_page, const Value& org_id,
                                  const Value& show_hidden) {
  return dispatch("get_group_list",
                  Value::object({KV(page), KV(per_page), KV(org_id), KV(show_hidden)}));
}
Value FakeBackend::create_group(const Value& device_group_name, const Value& description,
                                const Value& organization_id) {
  return dispatch("create_group", Value::object({KV(device_group_name), KV(description),
                                                 KV(organization_id)}));
}
Value FakeBackend::get_group_detail(const Value& device_group_name) {
  return dispatch("get_group_detail", Value::object({KV(device_group_name)}));
}
Value FakeBackend::list_space(const Value& group_name, const Value& page, const Value& per_page,
                              const Value& show_hidden_space) {
  return dispatch("list_space", Value::object({KV(group_name), KV(page), KV(per_page),
                                               KV(show_hidden_space)}));
}
Value FakeBackend::create_space(const Value& group_name, const Value& space_name,
                                const Value& description) {
  return dispatch("create_space",
                  Value::object({KV(group_name), KV(space_name), KV(description)}));
}
Value FakeBackend::get_space_detail(const Value& space_id) {
  return dispatch("get_space_detail", Value::object({KV(space_id)}));
}
Value FakeBackend::set_space_hidden(const Value& space_id, const Value& hidden) {
  return dispatch("set_space_hidden", Value::object({KV(space_id), KV(hidden)}));
}
Value FakeBackend::get_parameter(const Value& space_id, const Value& timestamp,
                                 const Value& parent_category) {
  return dispatch("get_parameter",
                  Value::object({KV(space_id), KV(timestamp), KV(parent_category)}));
}
Value FakeBackend::get_parameter_log(const Value& space_id, const Value& timestamp) {
  return dispatch("get_parameter_log", Value::object({KV(space_id), KV(timestamp)}));
}
Value FakeBackend::add_parameter(const Value& space_id, const Value& keys, const Value& values,
                                 const Value& types, const Value& experiment_id,
                                 const Value& node_id, const Value& session_id) {
  return dispatch("add_parameter", Value::object({KV(space_id), KV(keys), KV(values), KV(types),
                                                  KV(experiment_id), KV(node_id),
                                                  KV(session_id)}));
}
Value FakeBackend::delete_parameter(const Value& space_id, const Value& key,
                                    const Value& delete_status) {
  return dispatch("delete_parameter",
                  Value::object({KV(space_id), KV(key), KV(delete_status)}));
}
Value FakeBackend::get_parameter_tree(const Value& space_id, const Value& version,
                                      const Value& parent_tree) {
  return dispatch("get_parameter_tree",
                  Value::object({KV(space_id), KV(version), KV(parent_tree)}));
}
Value FakeBackend::get_parameter_history(const Value& space_id, const Value& key,
                                         const Value& page, const Value& per_page) {
  return dispatch("get_parameter_history",
                  Value::object({KV(space_id), KV(key), KV(page), KV(per_page)}));
}
Value FakeBackend::create_sub_process(const Value& organization_id, const Value& group_name,
                                      const Value& space_id, const Value& title,
                                      const Value& desc, const Value& resource_id,
                                      const Value& source, const Value& space_timestamp,
                                      const Value& template_name, const Value& exp_folder_id,
                                      const Value& priority) {
  return dispatch("create_sub_process",
                  Value::object({KV(organization_id), KV(group_name), KV(space_id), KV(title),
                                 KV(desc), KV(resource_id), KV(source), KV(space_timestamp),
                                 KV(template_name), KV(exp_folder_id), KV(priority)}));
}
Value FakeBackend::get_sub_process_detail(const Value& sub_process_id) {
  return dispatch("get_sub_process_detail", Value::object({KV(sub_process_id)}));
}
Value FakeBackend::get_sub_process_result(const Value& sub_process_id,
                                          const Value& start_piece_id,
                                          const Value& end_piece_id) {
  return dispatch("get_sub_process_result",
                  Value::object({KV(sub_process_id), KV(start_piece_id), KV(end_piece_id)}));
}
Value FakeBackend::get_sub_process_msg(const Value& sub_process_id) {
  return dispatch("get_sub_process_msg", Value::object({KV(sub_process_id)}));
}
Value FakeBackend::list_sub_processes(const Value& space_id, const Value& page,
                                      const Value& per_page) {
  return dispatch("list_sub_processes", Value::object({KV(space_id), KV(page), KV(per_page)}));
}
Value FakeBackend::list_new_experiments(const Value& space_id, const Value& since_exp_id,
                                        const Value& exp_folder_id, const Value& limit) {
  return dispatch("list_new_experiments", Value::object({KV(space_id), KV(since_exp_id),
                                                         KV(exp_folder_id), KV(limit)}));
}
Value FakeBackend::list_sub_processes_by_folder(const Value& space_id,
                                                const Value& exp_folder_id,
                                                const Value& before_exp_id, const Value& limit) {
  return dispatch("list_sub_processes_by_folder",
                  Value::object({KV(space_id), KV(exp_folder_id), KV(before_exp_id), KV(limit)}));
}
Value FakeBackend::count_experiments_by_folder(const Value& space_id,
                                               const Value& exp_folder_id) {
  return dispatch("count_experiments_by_folder",
                  Value::object({KV(space_id), KV(exp_folder_id)}));
}
Value FakeBackend::terminate_sub_process(const Value& sub_process_id) {
  return dispatch("terminate_sub_process", Value::object({KV(sub_process_id)}));
}
Value FakeBackend::download_result_chunk_from_cache(const Value& sub_process_id,
                                                    const Value& chunk_id) {
  return dispatch("download_result_chunk_from_cache",
                  Value::object({KV(sub_process_id), KV(chunk_id)}));
}
Value FakeBackend::create_exp_folder(const Value& space_id, const Value& exp_folder_name,
                                     const Value& parent_exp_folder_id) {
  return dispatch("create_exp_folder", Value::object({KV(space_id), KV(exp_folder_name),
                                                      KV(parent_exp_folder_id)}));
}
Value FakeBackend::list_exp_folders_by_parent(const Value& device_group_name,
                                              const Value& space_id,
                                              const Value& parent_exp_folder_id) {
  return dispatch("list_exp_folders_by_parent",
                  Value::object({KV(device_group_name), KV(space_id), KV(parent_exp_folder_id)}));
}
Value FakeBackend::add_fitting_result(const Value& sub_process_id, const Value& space_id,
                                      const Value& big_img_id, const Value& small_img_id,
                                      const Value& fitting_result) {
  return dispatch("add_fitting_result",
                  Value::object({KV(sub_process_id), KV(space_id), KV(big_img_id),
                                 KV(small_img_id), KV(fitting_result)}));
}
Value FakeBackend::get_fitting_result(const Value& sub_process_id) {
  return dispatch("get_fitting_result", Value::object({KV(sub_process_id)}));
}
Value FakeBackend::add_resource(const Value& file_name, const Value& file_format,
                                const Value& uri, const Value& category, const Value& source,
                                const Value& device_group_id) {
  return dispatch("add_resource", Value::object({KV(file_name), KV(file_format), KV(uri),
                                                 KV(category), KV(source),
                                                 KV(device_group_id)}));
}
Value FakeBackend::get_resource_info(const Value& resource_ids) {
  return dispatch("get_resource_info", Value::object({KV(resource_ids)}));
}
std::shared_ptr<com::minio::MinIOAPI> FakeBackend::get_minio_client(
    const Value& organization_id) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    calls_.push_back({"get_minio_client", Value::object({KV(organization_id)})});
    if (auto f = failures_.find("get_minio_client"); f != failures_.end() && f->second.first > 0) {
      --f->second.first;
      throw RuntimeError(f->second.second);
    }
  }
  return store;
}
Value FakeBackend::check_device_permission_by_name(const Value& group_name,
                                                   const Value& access) {
  return dispatch("check_device_permission_by_name",
                  Value::object({KV(group_name), KV(access)}));
}
Value FakeBackend::check_space_permission_by_id(const Value& space_id) {
  return dispatch("check_space_permission_by_id", Value::object({KV(space_id)}));
}

#undef KV

}  // namespace korvalin_client::testing
