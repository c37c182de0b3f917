// The server: the listening socket, the caps on connections, the threads, and stopping.
#include "korvalin_client/server/server.hpp"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include "connection.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::server {
namespace {

// How often deadlines are checked: a timeout may be cut off this much late.
constexpr auto kSweep = std::chrono::milliseconds(100);

// A server keeps a descriptor per connection: take all the process may have.
void raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

ssl::context make_tls(const ServerOptions& o) {
  ssl::context tls(ssl::context::tls_server);
  tls.set_options(ssl::context::default_workarounds | ssl::context::no_sslv2 |
                  ssl::context::no_sslv3 | ssl::context::no_tlsv1 | ssl::context::no_tlsv1_1 |
                  ssl::context::single_dh_use);
  boost::system::error_code ec;
  tls.use_certificate_chain_file(o.tls_cert, ec);
  if (ec) {
    throw RuntimeError("cannot use the TLS certificate \"" + o.tls_cert + "\": " + ec.message());
  }
  tls.use_private_key_file(o.tls_key, ssl::context::pem, ec);
  if (ec) throw RuntimeError("cannot use the TLS key \"" + o.tls_key + "\": " + ec.message());
  return tls;
}

// A connection over the caps is told so at once, if its socket takes the few bytes without
// waiting, and closed.
void refuse_at_once(tcp::socket& socket) {
  static const std::string kBusy = [] {
    const std::string body = encode_error(
        error_answer(503, "RuntimeError", "too many connections; try again later"), Encoding::json);
    return "HTTP/1.1 503 Service Unavailable\r\nContent-Type: "
           "application/json\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
  }();
  boost::system::error_code ignored;
  socket.non_blocking(true, ignored);
  socket.write_some(asio::buffer(kBusy), ignored);
  socket.shutdown(tcp::socket::shutdown_both, ignored);
  socket.close(ignored);
}

}  // namespace

struct Server::Impl {
  ServerOptions options;
  AccessLog log;
  Api api;
  int threads;
  FairSlots work_slots;
  FairSlots body_slots;
  FairSlots object_slots;
  Connections connections;
  std::atomic<bool> stopping{false};
  // Listening, the deadline sweep and stopping run on `control`, on the thread that called
  // run(); each connection lives on one of the `workers`, one thread each, so its reads, its
  // work and its writes follow each other on one thread, with no hand-over between threads.
  asio::io_context control{1};
  std::vector<std::unique_ptr<asio::io_context>> workers;
  std::unique_ptr<std::atomic<int>[]> busy;  // per worker: requests it is carrying out
  std::vector<asio::executor_work_guard<asio::io_context::executor_type>> keep_running;
  std::size_t next_worker = 0;
  asio::steady_timer grace{control};
  tcp::acceptor acceptor{control};
  std::optional<ssl::context> tls;
  Shared shared{api, work_slots, body_slots, object_slots, log, connections, options, stopping};
  int port = -1;

  Impl(std::shared_ptr<service::Engine> engine, ServerOptions o)
      : options(std::move(o)),
        log(options.log),
        api(std::move(engine), [this](const std::string& line) { log.line(line); }),
        threads(thread_count(options.threads)),
        // Each worker carries out one request at a time; a user holds half of them at most
        // while another user wants one.
        work_slots(threads, threads / 2, true),
        body_slots(options.body_slots, options.body_slots / 2),
        object_slots(options.object_slots, options.object_slots / 2),
        connections(options.max_connections, options.max_connections_per_address) {
    if (options.tls_cert.empty() != options.tls_key.empty()) {
      throw ValueError("HTTPS needs both a certificate and its key (--tls-cert and --tls-key)");
    }
    if (!options.tls_cert.empty()) tls.emplace(make_tls(options));
    if (options.max_connections < 1 || options.max_connections_per_address < 1) {
      throw ValueError("the connection caps must be at least 1");
    }
    if (!(options.header_timeout > 0) || !(options.body_timeout > 0)) {
      throw ValueError("the header and body timeouts must be positive");
    }
    raise_descriptor_limit();
    busy = std::make_unique<std::atomic<int>[]>(static_cast<std::size_t>(threads));
    for (int i = 0; i < threads; ++i) {
      workers.push_back(std::make_unique<asio::io_context>(1));
      keep_running.push_back(asio::make_work_guard(*workers.back()));
    }
  }

  static int thread_count(int threads) {
    if (threads < 0) throw ValueError("threads must not be negative");
    if (threads == 0) threads = 4 * static_cast<int>(std::thread::hardware_concurrency());
    return std::max(threads, 2);
  }

  // Cuts off operations past their deadline, until the server stopped and its last
  // connection is gone.
  asio::awaitable<void> sweep() {
    asio::steady_timer tick(control);
    while (!(stopping && connections.empty())) {
      tick.expires_after(kSweep);
      co_await tick.async_wait(kTuple);
      connections.sweep();
    }
    for (auto& guard : keep_running) guard.reset();
  }

  asio::awaitable<void> accept() {
    while (!stopping) {
      // Connections are dealt to the workers in turn, passing over those carrying out a
      // request (a long one would hold up a new connection until it ends) while one is free.
      std::size_t pick = next_worker++ % workers.size();
      for (std::size_t tried = 1; tried < workers.size() && busy[pick].load() > 0; ++tried) {
        pick = next_worker++ % workers.size();
      }
      auto [ec, accepted] = co_await acceptor.async_accept(*workers[pick], kTuple);
      if (stopping || ec == asio::error::operation_aborted) co_return;
      if (ec) {
        // Out of descriptors and the like: a moment's pause rather than a busy loop.
        asio::steady_timer pause(control, std::chrono::milliseconds(50));
        co_await pause.async_wait(kTuple);
        continue;
      }
      tcp::socket socket(std::move(accepted));
      boost::system::error_code ignored;
      socket.set_option(tcp::no_delay(true), ignored);
      const std::string address = socket.remote_endpoint(ignored).address().to_string();
      std::shared_ptr<Tracked> tracked = connections.admit(socket.get_executor(), address);
      if (!tracked) {
        refuse_at_once(socket);
        continue;
      }
      tracked->worker_busy = &busy[pick];
      asio::any_io_executor executor = socket.get_executor();
      asio::co_spawn(
          executor,
          serve_connection(std::move(socket), std::move(tracked), shared, tls ? &*tls : nullptr),
          asio::detached);
    }
  }
};

Server::Server(std::shared_ptr<service::Engine> engine, ServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(engine), std::move(options))) {}

Server::~Server() { stop(); }

int Server::bind() {
  if (impl_->port >= 0) return impl_->port;
  const std::string& host = impl_->options.host;
  const int wanted = impl_->options.port;
  const auto fail = [&](const boost::system::error_code& ec) {
    return RuntimeError("cannot listen on " + host + ":" + std::to_string(wanted) + ": " +
                        ec.message());
  };
  boost::system::error_code ec;
  tcp::resolver resolver(impl_->control);
  const auto found = resolver.resolve(host, std::to_string(wanted),
                                      tcp::resolver::passive | tcp::resolver::numeric_service, ec);
  if (ec || found.empty()) throw fail(ec);
  const tcp::endpoint endpoint = found.begin()->endpoint();
  tcp::acceptor& acceptor = impl_->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  // SO_REUSEADDR alone: a restart binds at once over the old connections' TIME_WAIT, but a
  // second server on the same address is refused (no SO_REUSEPORT, under which the kernel
  // would share one port between two stores' servers).
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    boost::system::error_code ignored;
    acceptor.close(ignored);
    throw fail(ec);
  }
  impl_->port = acceptor.local_endpoint().port();
  return impl_->port;
}

int Server::port() const { return impl_->port; }

bool Server::tls() const { return impl_->tls.has_value(); }

void Server::run() {
  bind();
  asio::co_spawn(impl_->control, impl_->accept(), asio::detached);
  asio::co_spawn(impl_->control, impl_->sweep(), asio::detached);
  std::vector<std::thread> workers;
  for (auto& worker : impl_->workers) workers.emplace_back([&worker] { worker->run(); });
  impl_->control.run();
  for (std::thread& t : workers) t.join();
}

void Server::stop() {
  if (impl_->stopping.exchange(true)) return;
  Impl& impl = *impl_;
  asio::post(impl.control, [&impl] {
    boost::system::error_code ignored;
    impl.acceptor.close(ignored);
    // Waiting connections go now; those with a request in flight finish it, then close, or
    // are closed once the grace time is over.
    impl.connections.close(false);
    impl.grace.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(impl.options.stop_grace)));
    impl.grace.async_wait([&impl](const boost::system::error_code& ec) {
      if (!ec) impl.connections.close(true);
    });
    impl.connections.when_empty(
        [&impl] { asio::post(impl.control, [&impl] { impl.grace.cancel(); }); });
  });
}

}  // namespace korvalin_client::server
