// The doubles of hermetic tests: FakeBackend, a scripted service, with its FakeObjectStore;
// FakeEnv and LockstepEnv, virtual clocks; Scoped<T> and ScopedBackend<B>, which install one
// for the lifetime of a test.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvalin_client/com/backend.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/utils/env.hpp"

namespace korvalin_client::testing {

struct Call {
  std::string name;
  Value args;  // argument name -> value
};

// The calls a fake received, and the failures it was told to give.
class CallLog {
 public:
  std::vector<Call> calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  std::vector<Call> calls_of(const std::string& name) const;
  std::vector<std::string> call_names() const;
  int count(const std::string& name) const { return static_cast<int>(calls_of(name).size()); }
  void clear_calls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
  }
  // The next `times` calls of `name` fail with a RuntimeError carrying `message`.
  void fail(const std::string& name, int times, std::string message = "service unavailable") {
    std::lock_guard lock(mutex_);
    failures_[name] = {times, std::move(message)};
  }

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
// descriptor).
class FakeObjectStore : public com::minio::MinIOAPI, public CallLog {
 public:
  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override;
  Bytes download(const Value& locator) override;

  void put(const Value& locator, Bytes data) {
    std::lock_guard lock(mutex_);
    objects_[locator.dump()] = std::move(data);
  }
  // The bytes stored under `locator` (a RuntimeError if none).
  Bytes stored(const Value& locator) const;

 private:
  std::map<std::string, Bytes> objects_;  // locator dump -> bytes
  int uploads_ = 0;
};

// A scripted service. Every call is recorded with its function name and its arguments (a
// mapping from argument name to value, in the function's argument order), so a test can
// assert exact call sequences. A call is answered, in this order of precedence, by: a pending
// failure (fail()), the next scripted answer (script()), the handler (on()), the fixed answer
// (answer()). A call with none of these is a RuntimeError saying so.
class FakeBackend : public com::Backend, public CallLog {
 public:
  using Handler = std::function<Value(const Value& args)>;

  void on(const std::string& name, Handler handler) {
    std::lock_guard lock(mutex_);
    handlers_[name] = std::move(handler);
  }
  void answer(const std::string& name, Value value) {
    std::lock_guard lock(mutex_);
    answers_[name] = std::move(value);
  }
  void script(const std::string& name, const std::vector<Value>& answers) {
    std::lock_guard lock(mutex_);
    scripts_[name].insert(scripts_[name].end(), answers.begin(), answers.end());
  }

  // The object store that get_minio_client() hands out.
  std::shared_ptr<FakeObjectStore> store = std::make_shared<FakeObjectStore>();
  std::string connection_type() const override { return "fake"; }
  // None: the cache root stays the one the test installed.
  std::string service_identity() const override { return ""; }
  std::shared_ptr<com::minio::MinIOAPI> get_minio_client(const Value& organization_id) override {
    std::lock_guard lock(mutex_);
    record("get_minio_client", {{"organization_id", organization_id}});
    return store;
  }

  Value call(com::Operation op, const com::Args& args) override;

 private:
  std::map<std::string, Handler> handlers_;
  std::map<std::string, Value> answers_;
  std::map<std::string, std::deque<Value>> scripts_;
};

// What the fake envs share: a virtual clock, and a hook called after every pause with its length.
class VirtualClock : public Env {
 public:
  explicit VirtualClock(double start) : now_(start) {}
  double now() override {
    std::lock_guard lock(mutex_);
    return now_;
  }
  // Moves the clock forward (the world changing between two steps of a test).
  void advance(double seconds) {
    std::lock_guard lock(mutex_);
    now_ += seconds;
  }
  void on_sleep(std::function<void(double)> hook) {
    std::lock_guard lock(mutex_);
    hook_ = std::move(hook);
  }

 protected:
  mutable std::mutex mutex_;
  double now_;
  std::function<void(double)> hook_;
};

// Recorded pauses that advance the clock without blocking, and captured output lines. The hook
// runs after the clock advanced, so a test can make the world change while the code "sleeps".
// Read what was recorded once the threads that record have ended.
class FakeEnv : public VirtualClock {
 public:
  explicit FakeEnv(double start = 1700000000.0) : VirtualClock(start) {}

  void sleep(double seconds) override;
  void print(const std::string& line) override {
    std::lock_guard lock(mutex_);
    lines.push_back(line);
  }
  void print_error(const std::string& line) override {
    std::lock_guard lock(mutex_);
    error_lines.push_back(line);
  }
  void set_now(double t) {
    std::lock_guard lock(mutex_);
    now_ = t;
  }

  // How many pauses of exactly `seconds` were asked for.
  int count_sleeps(double seconds) const;
  // The output lines that contain `needle`.
  std::vector<std::string> lines_containing(const std::string& needle) const;

  std::vector<double> sleeps;
  std::vector<std::string> lines;
  std::vector<std::string> error_lines;
};

// A clock shared by the test's thread and the library's worker threads, which it runs one at a
// time.
//
// A thread takes part when it constructs the env (the test's thread) or when a library worker
// begins on it (Env::worker_begins, e.g. the embedded service's executor). Exactly one of the
// threads taking part runs at any moment; the others wait inside sleep(). When the running
// thread sleeps, the clock moves to the earliest wake-up of the waiting threads (the sleeper
// itself included, earlier sleepers first on a tie) and that thread runs. So the clock never
// races ahead of a worker that is still working, a wait of 300 virtual seconds costs no real
// time, and every interleaving of client and worker is the same on every run. The hook runs on
// the sleeper's thread once it runs again.
//
// A thread that will block on anything but sleep() while others wait for their turn (joining
// a worker, for instance) must leave() first; the others then run on without it. A wait of
// more than 120 real seconds for a turn is taken for a deadlock and aborts the test.
class LockstepEnv : public VirtualClock {
 public:
  explicit LockstepEnv(double start = 1700000000.0)
      : VirtualClock(start), running_(std::this_thread::get_id()) {}

  void sleep(double seconds) override;
  void print(const std::string&) override {}
  void print_error(const std::string&) override {}
  void worker_begins() override;
  void worker_ends() override { leave(); }
  // The calling thread stops taking part.
  void leave();
  // Waits until a library worker takes part, at most 120 real seconds (false if none did). Until
  // a worker started by the test takes part, the test's pauses do not wait for it.
  bool await_worker();

 private:
  struct Waiter {
    double wake;
    std::uint64_t order;
    std::thread::id thread;
  };
  void wait_for_turn(std::unique_lock<std::mutex>& lock, std::thread::id me);
  void pass_turn();  // with mutex_ held

  std::condition_variable turn_changed_;
  std::vector<Waiter> waiting_;
  std::optional<std::thread::id> running_;
  std::uint64_t next_order_ = 0;
  int workers_ = 0;  // how many workers began
};

// Installs an env of type E for the lifetime of a test.
template <class E>
class Scoped : public E {
 public:
  template <class... Args>
  explicit Scoped(Args&&... args) : E(std::forward<Args>(args)...), scope_(*this) {}

 private:
  ScopedEnv scope_;
};
using ScopedFakeEnv = Scoped<FakeEnv>;
using ScopedLockstepEnv = Scoped<LockstepEnv>;

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
