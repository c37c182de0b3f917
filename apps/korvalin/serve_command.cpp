// korvalin serve: the store in one storage directory served over HTTP, with the executor that
// runs its experiments. SIGTERM or Ctrl-C stops taking requests, lets those in flight finish
// and stops the executor at a piece boundary, so the next start resumes the run it paused.
#include <pthread.h>
#include <signal.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "commands.hpp"
#include "korvalin_client/server/server.hpp"
#include "korvalin_client/service/executor.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;

struct ServeOptions {
  kc::server::ServerOptions server;
  std::string storage;
  kc::service::ExecutorOptions executor;
};

template <class Number>
Number number(const std::string& flag, const std::string& text, Number low) {
  std::size_t used = 0;
  double v = 0;
  try {
    v = std::stod(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || used != text.size() || !(v >= static_cast<double>(low)) || v > 1e15) {
    throw std::invalid_argument(flag + " must be a number of at least " + std::to_string(low) +
                                ", not \"" + text + "\"");
  }
  return static_cast<Number>(v);
}

// "HOST:PORT", "[V6]:PORT" or ":PORT".
void parse_listen(const std::string& text, kc::server::ServerOptions& options) {
  const auto colon = text.rfind(':');
  if (colon == std::string::npos) {
    throw std::invalid_argument("--listen takes HOST:PORT, not \"" + text + "\"");
  }
  std::string host = text.substr(0, colon);
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  options.host = host.empty() ? "0.0.0.0" : host;
  options.port = number<int>("--listen's port", text.substr(colon + 1), 0);
  if (options.port > 65535) throw std::invalid_argument("--listen's port must be at most 65535");
}

ServeOptions parse_serve(const std::vector<std::string>& args) {
  ServeOptions options;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw std::invalid_argument(a + " needs a value");
      return args[++i];
    };
    if (a == "--listen") {
      parse_listen(value(), options.server);
    } else if (a == "--storage") {
      options.storage = value();
    } else if (a == "--threads") {
      options.server.threads = number<int>(a, value(), 1);
    } else if (a == "--max-body") {
      options.server.max_body = number<std::size_t>(a, value(), 1);
    } else if (a == "--max-object") {
      options.server.max_object = number<std::size_t>(a, value(), 1);
    } else if (a == "--items-per-piece") {
      options.executor.items_per_piece = number<std::int64_t>(a, value(), 1);
    } else if (a == "--piece-interval") {
      options.executor.piece_interval = number<double>(a, value(), 0.0);
    } else {
      throw std::invalid_argument("serve: unknown option \"" + a + "\"");
    }
  }
  if (options.storage.empty()) options.storage = kc::utils::get_local_storage_dir();
  return options;
}

}  // namespace

int run_serve(const std::vector<std::string>& args) {
  ServeOptions options = parse_serve(args);

  // SIGTERM and SIGINT are taken by one thread of ours (every thread started from here on
  // inherits the mask), which stops the server from outside any signal handler.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  auto engine = std::make_shared<kc::service::Engine>(options.storage);
  kc::server::Server server(engine, options.server);
  const int port = server.bind();
  kc::service::Executor executor(engine, options.executor);
  executor.start();
  std::cerr << "korvalin serve: listening on http://" << options.server.host << ":" << port
            << " (storage " << engine->storage_dir() << ", service " << engine->service_identity()
            << ")" << std::endl;

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

}  // namespace korvalin_app
