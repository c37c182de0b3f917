#include "support/fake_env.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace korvalin_client::testing {

double LockstepEnv::now() {
  std::lock_guard lock(mutex_);
  return now_;
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
  waiting_.push_back({now_, next_order_++, me});
  wait_for_turn(lock, me);
}

void LockstepEnv::leave() {
  std::lock_guard lock(mutex_);
  if (running_ == std::this_thread::get_id()) pass_turn();
}

void LockstepEnv::advance(double seconds) {
  std::lock_guard lock(mutex_);
  now_ += seconds;
}

void LockstepEnv::on_sleep(std::function<void(double)> hook) {
  std::lock_guard lock(mutex_);
  hook_ = std::move(hook);
}

}  // namespace korvalin_client::testing
