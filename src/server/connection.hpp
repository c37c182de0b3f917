// One client connection, served by a coroutine on the connection's strand: it costs no thread
// while it waits. What the server holds on a connection is bounded by time (a whole header
// within its deadline, bodies and answers at a minimum rate), by size (the header, the body
// limits) and by who asks (no body byte is read before the route and the token are known;
// large bodies take a fair slot). A request is carried out on the thread that read it, once
// a slot of `work_slots` is its: all but one of the server's threads may carry out requests at
// once, so one is always left to move bytes, keep time and take connections.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "access_log.hpp"
#include "api.hpp"
#include "beast.hpp"
#include "fair_share.hpp"
#include "korvalin_client/server/server.hpp"

namespace korvalin_client::server {

// Bodies over this size (or of no announced size) take a slot (FairSlots) before they are read.
inline constexpr std::size_t kSmallBody = std::size_t{64} << 10;

// How the server reaches a connection from outside it. Its fields are touched only on the
// connection's strand.
struct Tracked {
  explicit Tracked(asio::any_io_executor e, std::string a)
      : executor(std::move(e)), address(std::move(a)) {}
  asio::any_io_executor executor;
  std::string address;
  tcp::socket* socket = nullptr;          // while the connection is served
  asio::steady_timer* waiting = nullptr;  // while it waits for a slot
  bool idle = true;                       // no request begun since the last answer
  bool expired = false;                   // its last operation was cut off by its deadline
  // The deadline of its operation in progress (steady clock ticks) and how many were set:
  // written on its strand, read by the sweep (Connections::sweep).
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
  // own strand.
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

// What every connection shares.
struct Shared {
  Api& api;
  FairSlots& work_slots;
  FairSlots& body_slots;
  FairSlots& object_slots;
  AccessLog& log;
  Connections& connections;
  const ServerOptions& options;
  const std::atomic<bool>& stopping;
};

// Serves the connection until it closes; over TLS when `tls` is given.
asio::awaitable<void> serve_connection(tcp::socket socket, std::shared_ptr<Tracked> tracked,
                                       Shared& shared, ssl::context* tls);

}  // namespace korvalin_client::server
