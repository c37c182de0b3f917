// LockstepEnv: a virtual clock shared by the test's thread and the library's worker threads,
// which it runs one at a time.
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
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "korvalin_client/utils/env.hpp"

namespace korvalin_client::testing {

class LockstepEnv : public Env {
 public:
  explicit LockstepEnv(double start = 1700000000.0);

  double now() override;
  void sleep(double seconds) override;
  void print(const std::string& line) override;
  void print_error(const std::string& line) override;
  void worker_begins() override;
  void worker_ends() override;

  // The calling thread stops taking part.
  void leave();
  // Moves the clock forward (the world changing between two steps of a test).
  void advance(double seconds);
  // Called on the sleeper's thread after every pause, once it runs again.
  void on_sleep(std::function<void(double)> hook);
  std::vector<std::string> error_lines() const;

 private:
  struct Waiter {
    double wake;
    std::uint64_t order;
    std::thread::id thread;
  };
  void wait_for_turn(std::unique_lock<std::mutex>& lock, std::thread::id me);
  void pass_turn();  // with mutex_ held

  mutable std::mutex mutex_;
  std::condition_variable turn_changed_;
  double now_;
  std::vector<Waiter> waiting_;
  std::optional<std::thread::id> running_;
  std::uint64_t next_order_ = 0;
  std::vector<std::string> error_lines_;
  std::function<void(double)> hook_;
};

// Installs a LockstepEnv for the lifetime of a test.
class ScopedLockstepEnv : public LockstepEnv {
 public:
  explicit ScopedLockstepEnv(double start = 1700000000.0) : LockstepEnv(start), scope_(*this) {}

 private:
  ScopedEnv scope_;
};

}  // namespace korvalin_client::testing
