// Environments for tests: FakeEnv (a virtual clock, recorded pauses, captured output) and
// LockstepEnv (a virtual clock shared with the library's worker threads).
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvalin_client/utils/env.hpp"

namespace korvalin_client::testing {

// A virtual clock, recorded pauses that advance it, and captured output lines.
class FakeEnv : public Env {
  template <class F>
  auto locked(F f) const {
    std::lock_guard lock(mutex_);
    return f();
  }

 public:
  explicit FakeEnv(double start = 1700000000.0) : now_(start) {}

  double now() override {
    return locked([&] { return now_; });
  }
  // Records the pause and advances the clock by it; never blocks. Runs the hook (if any)
  // after advancing, so a test can make the world change while the code "sleeps".
  void sleep(double seconds) override {
    auto hook = locked([&] {
      sleeps_.push_back(seconds);
      if (seconds > 0) now_ += seconds;
      return hook_;
    });
    if (hook) hook(seconds);
  }
  void print(const std::string& line) override {
    locked([&] { lines_.push_back(line); });
  }
  void print_error(const std::string& line) override {
    locked([&] { error_lines_.push_back(line); });
  }

  void advance(double seconds) {
    locked([&] { now_ += seconds; });
  }
  void set_now(double t) {
    locked([&] { now_ = t; });
  }
  // Called after every pause with the pause's length.
  void on_sleep(std::function<void(double)> hook) {
    locked([&] { hook_ = std::move(hook); });
  }

  std::vector<double> sleeps() const {
    return locked([&] { return sleeps_; });
  }
  // How many pauses of exactly `seconds` were asked for.
  int count_sleeps(double seconds) const {
    return locked(
        [&] { return static_cast<int>(std::count(sleeps_.begin(), sleeps_.end(), seconds)); });
  }
  std::vector<std::string> lines() const {
    return locked([&] { return lines_; });
  }
  std::vector<std::string> error_lines() const {
    return locked([&] { return error_lines_; });
  }
  // The output lines that contain `needle`.
  std::vector<std::string> lines_containing(const std::string& needle) const {
    std::vector<std::string> out;
    for (auto& l : lines())
      if (l.find(needle) != std::string::npos) out.push_back(std::move(l));
    return out;
  }
  void clear_output() {
    locked([&] {
      lines_.clear();
      error_lines_.clear();
    });
  }

 private:
  mutable std::mutex mutex_;
  double now_;
  std::vector<double> sleeps_;
  std::vector<std::string> lines_;
  std::vector<std::string> error_lines_;
  std::function<void(double)> hook_;
};

// A virtual clock shared by the test's thread and the library's worker threads, which it runs
// one at a time.
//
// A thread takes part when it constructs the env (the test's thread) or when a library worker
// begins on it (Env::worker_begins, e.g. the embedded service's executor). Exactly one of the
// threads taking part runs at any moment; the others wait inside sleep(). When the running
// thread sleeps, the clock moves to the earliest wake-up of the waiting threads (the sleeper
// itself included, earlier sleepers first on a tie) and that thread runs. So the clock never
// races ahead of a worker that is still working, a wait of 300 virtual seconds costs no real
// time, and every interleaving of client and worker is the same on every run.
//
// A thread that will block on anything but sleep() while others wait for their turn (joining
// a worker, for instance) must leave() first; the others then run on without it. A wait of
// more than 120 real seconds for a turn is taken for a deadlock and aborts the test.
class LockstepEnv : public Env {
 public:
  explicit LockstepEnv(double start = 1700000000.0)
      : now_(start), running_(std::this_thread::get_id()) {}

  double now() override;
  void sleep(double seconds) override;
  void print(const std::string&) override {}
  void print_error(const std::string&) override {}
  void worker_begins() override;
  void worker_ends() override { leave(); }

  // The calling thread stops taking part.
  void leave();
  // Moves the clock forward (the world changing between two steps of a test).
  void advance(double seconds);
  // Called on the sleeper's thread after every pause, once it runs again.
  void on_sleep(std::function<void(double)> hook);

 private:
  struct Waiter {
    double wake;
    std::uint64_t order;
    std::thread::id thread;
  };
  void wait_for_turn(std::unique_lock<std::mutex>& lock, std::thread::id me);
  void pass_turn();  // with mutex_ held

  std::mutex mutex_;
  std::condition_variable turn_changed_;
  double now_;
  std::vector<Waiter> waiting_;
  std::optional<std::thread::id> running_;
  std::uint64_t next_order_ = 0;
  std::function<void(double)> hook_;
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

}  // namespace korvalin_client::testing
