#include "fair_share.hpp"

#include <algorithm>

namespace korvalin_client::server {

WorkPool::WorkPool(int threads) : share_(std::max(1, threads / 2)) {
  threads_.reserve(static_cast<std::size_t>(threads));
  for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

WorkPool::~WorkPool() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  ready_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void WorkPool::post(const std::string& key, std::function<void()> job) {
  {
    std::lock_guard lock(mutex_);
    Queue& q = queues_[key];
    q.jobs.push_back(std::move(job));
    if (!q.in_turn && q.running < share_) {
      q.in_turn = true;
      turn_.push_back(key);
    }
  }
  ready_.notify_one();
}

void WorkPool::work() {
  std::unique_lock lock(mutex_);
  while (true) {
    ready_.wait(lock, [&] { return !turn_.empty() || (stopping_ && queues_.empty()); });
    if (turn_.empty()) return;
    const std::string key = std::move(turn_.front());
    turn_.pop_front();
    Queue& q = queues_[key];
    std::function<void()> job = std::move(q.jobs.front());
    q.jobs.pop_front();
    ++q.running;
    // Back at the end of the turn while it has more and room to run it.
    q.in_turn = !q.jobs.empty() && q.running < share_;
    if (q.in_turn) turn_.push_back(key);
    lock.unlock();
    job();
    job = nullptr;  // whatever it holds goes before the lock is taken again
    lock.lock();
    Queue& after = queues_[key];
    --after.running;
    if (after.jobs.empty() && after.running == 0) {
      queues_.erase(key);
      if (stopping_ && queues_.empty()) ready_.notify_all();
    } else if (!after.in_turn && !after.jobs.empty()) {
      after.in_turn = true;
      turn_.push_back(key);
      ready_.notify_one();
    }
  }
}

FairSlots::FairSlots(int slots) : free_(slots), share_(std::max(1, slots / 2)) {}

std::uint64_t FairSlots::acquire(const std::string& key, std::function<void()> granted) {
  std::lock_guard lock(mutex_);
  // A free slot means no waiter may take it (release() hands slots out while one can), so the
  // caller takes it if its share allows.
  int& held = held_[key];
  if (free_ > 0 && held < share_) {
    --free_;
    ++held;
    return 0;
  }
  if (held == 0) held_.erase(key);
  const std::uint64_t ticket = next_ticket_++;
  waiting_.push_back(Waiter{ticket, key, std::move(granted)});
  return ticket;
}

bool FairSlots::withdraw(std::uint64_t ticket) {
  std::lock_guard lock(mutex_);
  if (granted_.erase(ticket) > 0) return true;
  waiting_.remove_if([&](const Waiter& w) { return w.ticket == ticket; });
  return false;
}

std::list<FairSlots::Waiter>::iterator FairSlots::next_waiter() {
  auto best = waiting_.end();
  int best_held = share_;
  for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
    const auto h = held_.find(it->key);
    const int held = h == held_.end() ? 0 : h->second;
    if (held < best_held) {
      best = it;
      best_held = held;
    }
  }
  return best;
}

void FairSlots::release(const std::string& key) {
  std::vector<std::function<void()>> wake;
  {
    std::lock_guard lock(mutex_);
    if (const auto h = held_.find(key); h != held_.end() && --h->second <= 0) held_.erase(h);
    ++free_;
    while (free_ > 0) {
      const auto w = next_waiter();
      if (w == waiting_.end()) break;
      --free_;
      ++held_[w->key];
      granted_.insert(w->ticket);
      wake.push_back(std::move(w->granted));
      waiting_.erase(w);
    }
  }
  for (auto& granted : wake) granted();
}

int FairSlots::held_by(const std::string& key) {
  std::lock_guard lock(mutex_);
  const auto h = held_.find(key);
  return h == held_.end() ? 0 : h->second;
}

}  // namespace korvalin_client::server
