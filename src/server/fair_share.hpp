// Sharing the server's scarce things fairly between its users: the threads that carry out
// requests (WorkPool) and the slots for large request bodies (FairSlots). A key names who
// asks (a user, or a token before it is known whose it is); one key never holds more than its
// share, and what frees up goes to the key that holds least, so one user's flood or slowness
// never stops another's work. Neither knows anything of HTTP.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace korvalin_client::server {

// Threads carrying out jobs, taken in turn from each key's queue. A key runs at most half the
// threads at once (at least one), so the others stay free for everyone else.
class WorkPool {
 public:
  explicit WorkPool(int threads);
  // Carries out every job queued, then joins the threads.
  ~WorkPool();
  WorkPool(const WorkPool&) = delete;
  WorkPool& operator=(const WorkPool&) = delete;

  // Queues `job` for `key`. A job must not throw.
  void post(const std::string& key, std::function<void()> job);

 private:
  struct Queue {
    std::deque<std::function<void()>> jobs;
    int running = 0;
    bool in_turn = false;
  };
  void work();

  std::mutex mutex_;
  std::condition_variable ready_;
  std::unordered_map<std::string, Queue> queues_;
  std::deque<std::string> turn_;  // keys with a job waiting and room to run it
  int share_;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

// A fixed number of slots, each held by a key. A key holds at most half of them (at least
// one); a freed slot goes to the waiting key that holds fewest, the longest waiting first.
class FairSlots {
 public:
  explicit FairSlots(int slots);

  // Takes a slot for `key`: returns 0 when it was granted at once; otherwise queues the caller
  // and returns its ticket, and `granted` is called (on the thread that frees the slot, with
  // no lock held) once a slot is the caller's.
  std::uint64_t acquire(const std::string& key, std::function<void()> granted);
  // Called once for every ticket, after `granted` ran or when the caller stops waiting: true
  // when the slot was granted (the caller holds it and must release it), false when not (the
  // caller leaves the queue and none will be).
  bool withdraw(std::uint64_t ticket);
  void release(const std::string& key);

  int held_by(const std::string& key);

 private:
  struct Waiter {
    std::uint64_t ticket;
    std::string key;
    std::function<void()> granted;
  };
  // The waiter the next free slot goes to, or end().
  std::list<Waiter>::iterator next_waiter();

  std::mutex mutex_;
  int free_;
  int share_;
  std::map<std::string, int> held_;
  std::list<Waiter> waiting_;
  std::set<std::uint64_t> granted_;  // tickets granted and not yet withdrawn
  std::uint64_t next_ticket_ = 1;
};

}  // namespace korvalin_client::server
