// Server: a service::Engine over HTTP/1.1 or HTTPS (`korvalin serve`), one endpoint per
// operation of the catalogue (com/operations.hpp) plus the object store's endpoints;
// docs/http.md is the protocol and its limits. Every request but GET /health names its user by
// a bearer token, and the engine answers as that user, so rights are enforced where the data
// lives. Event-driven: a connection costs no thread while it waits.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "korvalin_client/service/engine.hpp"

namespace korvalin_client::server {

struct ServerOptions {
  std::string host = "127.0.0.1";
  int port = 8470;  // 0: any free port (port() says which)
  // HTTPS when both are given: PEM files of the certificate (chain) and its private key.
  std::string tls_cert;
  std::string tls_key;
  // Bodies of operations (JSON or MessagePack) and of uploaded objects. Bodies over 64 KiB (or
  // of no announced length) are read by a few requests at a time (`body_slots` for
  // operations, `object_slots` for objects), shared fairly between users: what bodies hold
  // stays bounded however many connections send them (a decoded body takes at most 32 bytes
  // per byte; objects are written to disk as they arrive).
  std::size_t max_body = std::size_t{32} << 20;
  std::size_t max_object = std::size_t{1} << 30;
  int body_slots = 4;
  int object_slots = 4;
  // Workers serving the connections, each a thread (0: four per core, at least 2). A
  // connection costs none while it waits; a request is carried out on the worker that read
  // it, and a user keeps at most half of them busy while another user wants one.
  int threads = 0;
  // Seconds an idle kept-alive connection stays open.
  double keep_alive_seconds = 5;
  // A request's whole header must arrive within this many seconds.
  double header_timeout = 10;
  // Bodies and answers must move at least `min_body_rate` bytes per second, measured over
  // every `body_timeout` seconds; a slower peer is refused (408) and disconnected.
  double body_timeout = 10;
  std::size_t min_body_rate = 1024;
  // Connections open at once, in all and from one client address; more are refused (503).
  int max_connections = 10000;
  int max_connections_per_address = 256;
  // On stop(): seconds the requests in flight have to finish moving their bytes before their
  // connections are closed.
  double stop_grace = 3;
  // Where each request's log line goes (time, method, path, status, duration, user); none:
  // standard error.
  std::function<void(const std::string&)> log;
};

class Server {
 public:
  Server(std::shared_ptr<service::Engine> engine, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the address (a RuntimeError naming it when it cannot), then serves until stop().
  // Returns once every request in flight has been answered.
  void run();
  // Binds the address; run() then serves. The port bound, for ServerOptions::port 0.
  int bind();
  int port() const;
  // Whether it serves HTTPS.
  bool tls() const;
  // Stops taking connections and requests; those in flight are answered, and connections
  // still moving bytes after `stop_grace` seconds are closed. Safe from any thread (not from a
  // signal handler: see apps/korvalin/serve_command.cpp).
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace korvalin_client::server
