#include "support/fakes.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::testing {

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

void CallLog::record(const std::string& name, Value args) {
  calls_.push_back({name, std::move(args)});
  if (auto f = failures_.find(name); f != failures_.end() && f->second.first > 0) {
    --f->second.first;
    throw RuntimeError(f->second.second);
  }
}

Value FakeObjectStore::upload(const std::string& object_name, const Bytes& data,
                              const std::string& category, const std::string& format) {
  std::lock_guard lock(mutex_);
  record("upload", {{"object_name", object_name},
                    {"size", data.size()},
                    {"category", category},
                    {"format", format}});
  const Value locator = {{"bucket", category}, {"object", object_name}, {"n", ++uploads_}};
  objects_[locator.dump()] = data;
  return locator;
}

Bytes FakeObjectStore::download(const Value& locator) {
  {
    std::lock_guard lock(mutex_);
    record("download", {{"locator", locator}});
  }
  return stored(locator);
}

Bytes FakeObjectStore::stored(const Value& locator) const {
  std::lock_guard lock(mutex_);
  auto it = objects_.find(locator.dump());
  if (it == objects_.end()) throw RuntimeError("FakeObjectStore: no object at " + locator.dump());
  return it->second;
}

Value FakeBackend::call(com::Operation op, const com::Args& args) {
  const auto& operation = com::info(op);
  const std::string name(operation.name);
  Value recorded = Value::object();
  for (std::size_t i = 0; i < args.size(); ++i)
    recorded[std::string(operation.arguments[i])] = args[i];
  Handler handler;
  {
    std::lock_guard lock(mutex_);
    record(name, recorded);
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
      throw RuntimeError("FakeBackend: nothing scripted for " + name);
    }
  }
  // The handler runs unlocked, so it may block or call back into the backend.
  return handler(recorded);
}

void FakeEnv::sleep(double seconds) {
  std::function<void(double)> hook;
  {
    std::lock_guard lock(mutex_);
    sleeps.push_back(seconds);
    if (seconds > 0) now_ += seconds;
    hook = hook_;
  }
  if (hook) hook(seconds);
}

int FakeEnv::count_sleeps(double seconds) const {
  return static_cast<int>(std::count(sleeps.begin(), sleeps.end(), seconds));
}

std::vector<std::string> FakeEnv::lines_containing(const std::string& needle) const {
  std::vector<std::string> out;
  for (const auto& l : lines)
    if (l.find(needle) != std::string::npos) out.push_back(l);
  return out;
}

void LockstepEnv::pass_turn() {
  running_.reset();
  if (waiting_.empty()) return;
  const auto next =
      std::min_element(waiting_.begin(), waiting_.end(), [](const Waiter& a, const Waiter& b) {
        return a.wake < b.wake || (a.wake == b.wake && a.order < b.order);
      });
  now_ = std::max(now_, next->wake);
  running_ = next->thread;
  waiting_.erase(next);
  turn_changed_.notify_all();
}

void LockstepEnv::wait_for_turn(std::unique_lock<std::mutex>& lock, std::thread::id me) {
  if (!running_) pass_turn();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  if (!turn_changed_.wait_until(lock, deadline, [&] { return running_ == me; })) {
    std::fputs("LockstepEnv: no turn for 120 s; a thread taking part blocks outside sleep()\n",
               stderr);
    std::abort();
  }
}

void LockstepEnv::sleep(double seconds) {
  const auto me = std::this_thread::get_id();
  std::function<void(double)> hook;
  {
    std::unique_lock lock(mutex_);
    if (running_ != me) {
      std::fputs("LockstepEnv: sleep() from a thread that does not take part\n", stderr);
      std::abort();
    }
    waiting_.push_back({now_ + std::max(seconds, 0.0), next_order_++, me});
    pass_turn();
    wait_for_turn(lock, me);
    hook = hook_;
  }
  if (hook) hook(seconds);
}

void LockstepEnv::worker_begins() {
  const auto me = std::this_thread::get_id();
  std::unique_lock lock(mutex_);
  ++workers_;
  turn_changed_.notify_all();
  waiting_.push_back({now_, next_order_++, me});
  wait_for_turn(lock, me);
}

bool LockstepEnv::await_worker() {
  std::unique_lock lock(mutex_);
  return turn_changed_.wait_for(lock, std::chrono::seconds(120), [&] { return workers_ > 0; });
}

void LockstepEnv::leave() {
  std::lock_guard lock(mutex_);
  if (running_ == std::this_thread::get_id()) pass_turn();
}

}  // namespace korvalin_client::testing
