// Sharing the server's scarce things fairly between its users: the threads that carry out
// requests and the slots for large request bodies. A key names who asks (a user, or a token
// before it is known whose it is); one key never holds more than its share, and what frees up
// goes to the waiting key that holds least, so one user's flood or slowness never stops
// another's work. Nothing here knows of HTTP.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace korvalin_client::server {

// A fixed number of slots, each held by a key. A key holds at most `share` of them (at least
// one); a freed slot goes to the waiting key that holds fewest, the longest waiting first.
// With `lend`, a key alone (no other key holds a slot or waits for one) may take beyond its
// share: for slots held briefly, where a second key needs to wait for one slot to free up at
// most before the first is held back again.
class FairSlots {
 public:
  FairSlots(int slots, int share, bool lend = false);

  // Takes a slot for `key` if one is free for it now; false otherwise.
  bool try_acquire(const std::string& key);
  // Takes a slot for `key`: returns 0 when it was granted at once; otherwise queues the caller
  // and returns its ticket, and `granted` is called (on the thread that frees the slot, with
  // no lock held) once a slot is the caller's.
  std::uint64_t acquire(const std::string& key, std::function<void()> granted);
  // Called once for every ticket, after `granted` ran or when the caller stops waiting: true
  // when the slot was granted (the caller holds it and must release it), false when not (the
  // caller leaves the queue and none will be).
  bool withdraw(std::uint64_t ticket);
  void release(const std::string& key);

 private:
  struct Waiter {
    std::uint64_t ticket;
    std::string key;
    std::function<void()> granted;
  };
  // The waiter the next free slot goes to, or end().
  std::list<Waiter>::iterator next_waiter();
  // Whether `key` may take one more slot, one being free.
  bool may_take(const std::string& key, int held) const;

  std::mutex mutex_;
  int free_;
  int share_;
  bool lend_;
  std::map<std::string, int> held_;
  std::list<Waiter> waiting_;
  std::set<std::uint64_t> granted_;  // tickets granted and not yet withdrawn
  std::uint64_t next_ticket_ = 1;
};

}  // namespace korvalin_client::server
