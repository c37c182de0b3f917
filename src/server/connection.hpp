// One client connection, served by a coroutine on one of the server's workers (a thread with
// an io_context of its own): it costs no thread while it waits. What the server holds on a
// connection is bounded by time (a whole header within its deadline, bodies and answers at a
// minimum rate), by size (the header, the body limits) and by who asks (no body byte is read
// before the route and the token are known; large bodies take a fair slot). A request is
// carried out on the worker that read it, once a slot of `work_slots` is its, so that a user
// who keeps several workers busy leaves the others to everyone else.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "access_log.hpp"
#include "api.hpp"
#include "beast.hpp"
#include "connections.hpp"
#include "fair_share.hpp"
#include "korvalin_client/server/server.hpp"

namespace korvalin_client::server {

// Bodies over this size (or of no announced size) take a slot (FairSlots) before they are read.
inline constexpr std::size_t kSmallBody = std::size_t{64} << 10;

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
