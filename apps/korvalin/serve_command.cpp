// korvalin serve: the store in one storage directory served over HTTP, with the executor that
// runs its experiments. SIGTERM or Ctrl-C stops taking requests, lets those in flight finish
// and stops the executor at a piece boundary, so the next start resumes the run it paused.
#include <pthread.h>
#include <signal.h>

#include <charconv>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cli.hpp"
#include "korvalin_client/server/server.hpp"
#include "korvalin_client/service/executor.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

struct ServeOptions {
  std::string listen = "127.0.0.1:8470";
  std::string storage;  // empty: the local storage directory
  kc::server::ServerOptions server;
  // Read as reals so that "1e6" is a size too.
  double max_body = static_cast<double>(kc::server::ServerOptions{}.max_body);
  double max_object = static_cast<double>(kc::server::ServerOptions{}.max_object);
  double min_body_rate = static_cast<double>(kc::server::ServerOptions{}.min_body_rate);
  std::int64_t items_per_piece = kc::service::ExecutorOptions{}.items_per_piece;
  double piece_interval = kc::service::ExecutorOptions{}.piece_interval;
};

// "HOST:PORT", "[V6]:PORT" or ":PORT".
void parse_listen(const std::string& text, kc::server::ServerOptions& options) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos)
    throw UsageError("--listen takes HOST:PORT, not \"" + text + "\"");
  std::string host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
    host = host.substr(1, host.size() - 2);
  const std::string port = text.substr(colon + 1);
  int number = -1;
  const auto [end, ec] = std::from_chars(port.data(), port.data() + port.size(), number);
  if (ec != std::errc() || end != port.data() + port.size() || number < 0 || number > 65535) {
    throw UsageError("--listen's port must be a number from 0 to 65535, not \"" + port + "\"");
  }
  options.host = host.empty() ? "0.0.0.0" : host;
  options.port = number;
}

int serve(const ServeOptions& o) {
  kc::server::ServerOptions server_options = o.server;
  parse_listen(o.listen, server_options);
  server_options.max_body = static_cast<std::size_t>(o.max_body);
  server_options.max_object = static_cast<std::size_t>(o.max_object);
  server_options.min_body_rate = static_cast<std::size_t>(o.min_body_rate);
  kc::service::ExecutorOptions executor_options;
  executor_options.items_per_piece = o.items_per_piece;
  executor_options.piece_interval = o.piece_interval;
  const std::string storage = o.storage.empty() ? kc::utils::get_local_storage_dir() : o.storage;
  // SIGTERM and SIGINT are taken by one thread of ours (every thread started from here on
  // inherits the mask), which stops the server from outside any signal handler.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  auto engine = std::make_shared<kc::service::Engine>(storage);
  kc::server::Server server(engine, server_options);
  const int port = server.bind();
  kc::service::Executor executor(engine, executor_options);
  executor.start();
  std::cerr << "korvalin serve: listening on " << (server.tls() ? "https://" : "http://")
            << server_options.host << ":" << port << " (storage " << engine->storage_dir()
            << ", service " << engine->service_identity() << ")" << std::endl;

  std::thread stopper([&] {
    int signal = 0;
    sigwait(&stop_signals, &signal);
    if (signal != 0) {
      std::cerr << "korvalin serve: " << (signal == SIGTERM ? "SIGTERM" : "interrupt")
                << ": finishing the requests in flight" << std::endl;
    }
    executor.request_stop();
    server.stop();
  });
  server.run();
  // run() ends only once stopped; if it ended otherwise, wake the stopper ourselves.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  executor.stop();
  std::cerr << "korvalin serve: stopped" << std::endl;
  return 0;
}

}  // namespace

void add_serve_command(CLI::App& app, Program& program) {
  auto o = std::make_shared<ServeOptions>();
  CLI::App* command =
      add_command(app, "serve", "Serve a store over HTTP to the team and run its experiments",
                  program, [o] { return serve(*o); });
  command->footer(
      "The HTTP protocol is in docs/http.md. SIGTERM or Ctrl-C stops taking requests, answers "
      "those in flight and pauses a running experiment at a piece boundary.");
  command->add_option("--listen", o->listen, "HOST:PORT to listen on (port 0: any free port)")
      ->capture_default_str();
  command->add_option("--storage", o->storage, "The store (default: $KORVALIN_STORAGE_DIR)");
  kc::server::ServerOptions& server = o->server;
  command->add_option("--tls-cert", server.tls_cert,
                      "Serve HTTPS with this certificate (PEM; with --tls-key)");
  command->add_option("--tls-key", server.tls_key, "The certificate's private key (PEM)");
  // A number within [low, high], its default shown.
  const auto number = [command](const char* name, auto& value, const char* help, auto low,
                                auto high) {
    command->add_option(name, value, help)->capture_default_str()->check(CLI::Range(low, high));
  };
  number("--threads", server.threads,
         "Worker threads serving connections, each carrying out one request at a time; a user "
         "keeps half of them at most while others wait (0: four per core)",
         0, 1024);
  command
      ->add_option("--max-body", o->max_body, "Largest operation body, in bytes (default: 32 MiB)")
      ->check(CLI::Range(1.0, 1e15));
  command
      ->add_option("--max-object", o->max_object,
                   "Largest uploaded object, in bytes (default: 1 GiB)")
      ->check(CLI::Range(1.0, 1e15));
  command
      ->add_option("--min-body-rate", o->min_body_rate,
                   "Bytes per second a body or answer must move at least (default: 1024)")
      ->check(CLI::Range(1.0, 1e12));
  number("--header-timeout", server.header_timeout, "Seconds a request's whole header may take",
         0.01, 3600.0);
  number("--body-timeout", server.body_timeout,
         "Seconds over which bodies and answers must keep --min-body-rate", 0.01, 3600.0);
  number("--keep-alive", server.keep_alive_seconds, "Seconds an idle connection stays open", 0.01,
         3600.0);
  number("--max-connections", server.max_connections, "Connections open at once", 1, 1000000);
  number("--max-connections-per-address", server.max_connections_per_address,
         "Connections open at once from one client address", 1, 1000000);
  number("--body-slots", server.body_slots,
         "Operation bodies over 64 KiB read at once (a user takes half at most)", 1, 1024);
  number("--object-slots", server.object_slots,
         "Object uploads over 64 KiB read at once (a user takes half at most)", 1, 1024);
  command
      ->add_option("--items-per-piece", o->items_per_piece,
                   "Items of an experiment per stored result piece")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  command
      ->add_option("--piece-interval", o->piece_interval,
                   "Seconds the executor pauses after each piece")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
}

}  // namespace korvalin_app
