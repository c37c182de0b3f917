// Server: a service::Engine over HTTP/1.1 (`korvalin serve`), one endpoint per operation of
// the catalogue (com/operations.hpp) plus the object store's endpoints; docs/http.md is the
// protocol. Every request but GET /health names its user by a bearer token, and the engine
// answers as that user, so rights are enforced where the data lives.
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
  // Bodies of operations (JSON or MessagePack) and of uploaded objects. Bodies over 1 MiB are
  // read by 4 requests at a time, objects by 2, so what bodies hold stays bounded (a decoded
  // body takes at most 32 bytes per byte).
  std::size_t max_body = std::size_t{32} << 20;
  std::size_t max_object = std::size_t{1} << 30;
  // Threads serving connections; a kept-alive connection holds one while it is open.
  int threads = 64;
  // Seconds an idle kept-alive connection stays open.
  int keep_alive_seconds = 5;
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
  // Stops taking connections and requests; those in flight are finished. Safe from any
  // thread (not from a signal handler: see apps/korvalin/serve_command.cpp).
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace korvalin_client::server
