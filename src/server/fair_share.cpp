#include "fair_share.hpp"

#include <algorithm>

namespace korvalin_client::server {

FairSlots::FairSlots(int slots, int share, bool lend)
    : free_(std::max(1, slots)), share_(std::clamp(share, 1, std::max(1, slots))), lend_(lend) {}

bool FairSlots::may_take(const std::string& key, int held) const {
  if (held < share_) return true;
  // Alone: no waiter, and `key` the only one holding slots.
  return lend_ && waiting_.empty() && held_.size() == 1 && held_.begin()->first == key;
}

bool FairSlots::try_acquire(const std::string& key) {
  std::lock_guard lock(mutex_);
  if (free_ <= 0) return false;
  const auto [it, added] = held_.try_emplace(key, 0);
  if (!may_take(key, it->second)) return false;
  --free_;
  ++it->second;
  return true;
}

std::uint64_t FairSlots::acquire(const std::string& key, std::function<void()> granted) {
  std::lock_guard lock(mutex_);
  // A free slot means no waiter may take it (release() hands slots out while one can), so the
  // caller takes it if its share allows.
  int& held = held_[key];
  if (free_ > 0 && may_take(key, held)) {
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

}  // namespace korvalin_client::server
