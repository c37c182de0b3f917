#include "support/fake_backend.hpp"

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::testing {

// ---- CallLog --------------------------------------------------------------------------------

std::vector<Call> CallLog::calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

std::vector<Call> CallLog::calls_of(const std::string& name) const {
  std::vector<Call> out;
  for (auto& c : calls())
    if (c.name == name) out.push_back(std::move(c));
  return out;
}

std::vector<std::string> CallLog::call_names() const {
  std::vector<std::string> out;
  for (const auto& c : calls()) out.push_back(c.name);
  return out;
}

void CallLog::clear_calls() {
  std::lock_guard<std::mutex> lock(mutex_);
  calls_.clear();
}

void CallLog::fail(const std::string& name, int times, std::string message) {
  std::lock_guard<std::mutex> lock(mutex_);
  failures_[name] = {times, std::move(message)};
}

void CallLog::record(const std::string& name, Value args) {
  calls_.push_back({name, std::move(args)});
  if (auto f = failures_.find(name); f != failures_.end() && f->second.first > 0) {
    --f->second.first;
    throw RuntimeError(f->second.second);
  }
}

// ---- FakeObjectStore ------------------------------------------------------------------------

Value FakeObjectStore::upload(const std::string& object_name, const Bytes& data,
                              const std::string& category, const std::string& format) {
  std::lock_guard<std::mutex> lock(mutex_);
  record("upload", {{"object_name", object_name},
                    {"size", data.size()},
                    {"category", category},
                    {"format", format}});
  const Value locator = {{"bucket", category}, {"object", object_name}, {"n", ++uploads_}};
  objects_[locator.dump()] = data;
  return locator;
}

Bytes FakeObjectStore::download(const Value& locator) {
  std::function<Bytes(const Value&)> handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    record("download", {{"locator", locator}});
    if (auto it = objects_.find(locator.dump()); it != objects_.end()) return it->second;
    handler = handler_;
  }
  if (handler) return handler(locator);
  throw RuntimeError("FakeObjectStore: no object at " + locator.dump());
}

void FakeObjectStore::put(const Value& locator, Bytes data) {
  std::lock_guard<std::mutex> lock(mutex_);
  objects_[locator.dump()] = std::move(data);
}

void FakeObjectStore::on_download(std::function<Bytes(const Value&)> handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  handler_ = std::move(handler);
}

Bytes FakeObjectStore::stored(const Value& locator) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = objects_.find(locator.dump());
  if (it == objects_.end()) throw RuntimeError("FakeObjectStore: no object at " + locator.dump());
  return it->second;
}

// ---- FakeBackend ----------------------------------------------------------------------------

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

std::shared_ptr<com::minio::MinIOAPI> FakeBackend::get_minio_client(const Value& organization_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  record("get_minio_client", {{"organization_id", organization_id}});
  return store;
}

Value FakeBackend::dispatch(const char* name, const char* arg_names,
                            std::initializer_list<std::reference_wrapper<const Value>> values) {
  Value args = Value::object();
  const std::string names = arg_names;
  std::size_t begin = 0;
  for (const Value& v : values) {
    const std::size_t end = std::min(names.find(',', begin), names.size());
    args[names.substr(begin, end - begin)] = v;
    begin = names.find_first_not_of(' ', end + 1);
  }
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    record(name, args);
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

}  // namespace korvalin_client::testing
