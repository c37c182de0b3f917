// The connections a server serves: each one's entry (how the server reaches it from outside:
// to close it, or to cut off an operation past its deadline), the caps on how many are open in
// all and from one client address, and the sweep that enforces deadlines.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "beast.hpp"

namespace korvalin_client::server {

// How the server reaches a connection from outside it. Its fields are touched only on the
// connection's worker.
struct Tracked {
  explicit Tracked(asio::any_io_executor e, std::string a)
      : executor(std::move(e)), address(std::move(a)) {}
  asio::any_io_executor executor;
  std::string address;
  tcp::socket* socket = nullptr;          // while the connection is served
  asio::steady_timer* waiting = nullptr;  // while it waits for a slot
  bool idle = true;                       // no request begun since the last answer
  // How many requests its worker is carrying out now (0 or 1): read when new connections are
  // dealt, so that they go to a worker that is free.
  std::atomic<int>* worker_busy = nullptr;
  bool expired = false;                   // its last operation was cut off by its deadline
  // The deadline of its operation in progress (steady clock ticks) and how many were set:
  // written on its worker, read by the sweep (Connections::sweep).
  std::atomic<std::chrono::steady_clock::rep> deadline{
      std::chrono::steady_clock::time_point::max().time_since_epoch().count()};
  std::atomic<std::uint64_t> generation{0};
  // Closes the socket, which ends whatever the connection waits for.
  void close();
};

// The connections being served, counted by client address.
class Connections {
 public:
  Connections(int max_total, int max_per_address);
  // The entry of a new connection from `address`, or null when the caps refuse it.
  std::shared_ptr<Tracked> admit(asio::any_io_executor executor, const std::string& address);
  void leave(const std::shared_ptr<Tracked>& tracked);
  // Closes the connections waiting for a request (all of them, with `everyone`); each on its
  // own worker.
  void close(bool everyone);
  // Cuts off the operation of every connection whose deadline passed; the server calls it a
  // few times a second.
  void sweep();
  bool empty();
  // Called (on whichever thread the last one leaves) once no connection is left.
  void when_empty(std::function<void()> done);

 private:
  std::mutex mutex_;
  int max_total_;
  int max_per_address_;
  std::list<std::shared_ptr<Tracked>> all_;
  std::unordered_map<std::string, int> per_address_;
  std::function<void()> when_empty_;
};

}  // namespace korvalin_client::server
