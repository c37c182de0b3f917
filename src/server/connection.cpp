#include "connection.hpp"

#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <type_traits>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::server {
namespace {

using Clock = std::chrono::steady_clock;

// A request header is at most this long; request targets are further bounded by kMaxTarget.
constexpr std::uint32_t kMaxHeader = 16 << 10;
// Reads take at most this much at a time; raw answers are written in slices of kSlice.
constexpr std::size_t kReadSize = 16 << 10;
constexpr std::size_t kSlice = std::size_t{1} << 20;
// A request waits at most this long for a slot (to be carried out, or for its large body),
// then is refused (503).
constexpr auto kSlotWait = std::chrono::seconds(30);
// After refusing a request whose body it did not read, the server reads and drops what the
// client still sends for at most this long (so that the refusal reaches it), then closes.
constexpr auto kLinger = std::chrono::seconds(1);
constexpr std::size_t kLingerBytes = std::size_t{1} << 20;

Clock::duration seconds(double s) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(s));
}

// Bytes moving at no less than a minimum rate: every window must move rate x window bytes,
// the next window starting when the last one's quota was met.
class Pace {
 public:
  explicit Pace(const ServerOptions& o)
      : window_(seconds(o.body_timeout)),
        need_(std::max<std::size_t>(
            1, static_cast<std::size_t>(static_cast<double>(o.min_body_rate) * o.body_timeout))),
        start_(Clock::now()) {}
  Clock::time_point deadline() const { return start_ + window_; }
  void moved(std::size_t n) {
    bytes_ += n;
    if (bytes_ >= need_) {
      start_ = Clock::now();
      bytes_ = 0;
    }
  }

 private:
  Clock::duration window_;
  std::size_t need_;
  Clock::time_point start_;
  std::size_t bytes_ = 0;
};

// The deadline of a connection's next read or write, kept in its Tracked entry: setting one
// costs two stores (no timer, no system call), and the server's sweep cancels the operation
// of a connection whose deadline passed (the socket stays open, so a refusal can still be
// sent), after which expired() says why it ended.
class Deadline {
 public:
  explicit Deadline(Tracked& tracked) : t_(tracked) {}
  ~Deadline() { t_.deadline.store(Clock::time_point::max().time_since_epoch().count()); }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  void at(Clock::time_point when) {
    t_.expired = false;
    t_.generation.fetch_add(1);
    t_.deadline.store(when.time_since_epoch().count());
  }
  void after(Clock::duration d) { at(Clock::now() + d); }
  bool expired() const { return t_.expired; }

 private:
  Tracked& t_;
};

// Gives back, at the end of its scope, the slot a request took (none when `slots` is null).
struct SlotHeld {
  FairSlots* slots;
  const std::string& key;
  ~SlotHeld() {
    if (slots) slots->release(key);
  }
};

std::string bearer_token(std::string_view header) {
  constexpr std::string_view kBearer = "Bearer ";
  if (header.size() <= kBearer.size() || !header.starts_with(kBearer)) return {};
  return std::string(header.substr(kBearer.size()));
}

bool closed_by_peer(const boost::system::error_code& ec) {
  return ec == http::error::end_of_stream || ec == http::error::partial_message ||
         ec == asio::error::eof || ec == asio::error::connection_reset ||
         ec == asio::error::broken_pipe || ec == asio::error::operation_aborted ||
         ec == asio::error::bad_descriptor || ec == ssl::error::stream_truncated;
}

std::string shown_seconds(double s) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", s);
  return text;
}

// What a request's log line says.
struct Note {
  std::chrono::system_clock::time_point wall = std::chrono::system_clock::now();
  Clock::time_point start = Clock::now();
  std::string method = "-";
  std::string path = "-";
  std::string user = "-";
};

template <class Stream>
class Session {
 public:
  Session(Stream& stream, Tracked& tracked, Shared& shared)
      : stream_(stream), tracked_(tracked), s_(shared), o_(shared.options), deadline_(tracked) {}

  asio::awaitable<void> run() {
    bool first = true;
    while (!s_.stopping) {
      // Waiting for a request costs nothing but the buffer; an idle connection is closed after
      // the keep-alive time (the first request has the header's deadline).
      tracked_.idle = true;
      // A buffer grown by one large request is given back while the connection waits.
      if (buffer_.size() == 0 && buffer_.capacity() > 4 * kReadSize) buffer_.shrink_to_fit();
      if (buffer_.size() == 0) {
        deadline_.after(seconds(first ? o_.header_timeout : o_.keep_alive_seconds));
        auto [ec, n] = co_await stream_.async_read_some(buffer_.prepare(kReadSize), kTuple);
        if (ec) break;
        buffer_.commit(n);
      }
      tracked_.idle = false;
      first = false;
      const bool more = co_await request();
      if (!more) break;
    }
  }

 private:
  auto& lowest() { return beast::get_lowest_layer(stream_); }

  // Serves one request; whether the connection goes on.
  asio::awaitable<bool> request() {
    Note note;
    http::request_parser<http::empty_body> head;
    head.header_limit(kMaxHeader);
    head.body_limit(boost::none);  // bodies are bounded by route below
    deadline_.at(note.start + seconds(o_.header_timeout));
    const auto [ec, n] = co_await http::async_read_header(stream_, buffer_, head, kTuple);
    if (ec && deadline_.expired()) {
      co_return co_await refuse(
          note, s_.api.error(error_answer(408, "ValueError",
                                          "the request header did not arrive whole within " +
                                              shown_seconds(o_.header_timeout) + " s"),
                             Encoding::json));
    }
    if (ec && closed_by_peer(ec)) {
      log(note, 400);
      co_return false;
    }
    if (ec) {
      co_return co_await refuse(
          note, s_.api.error(error_answer(400, "ValueError", "malformed request: " + ec.message()),
                             Encoding::json));
    }
    const auto& req = head.get();
    note.method = std::string(req.method_string());
    const std::string target(req.target());
    note.path = target.substr(0, std::min(target.find('?'), kMaxTarget));
    const RequestHead info{std::string(req[http::field::content_type]),
                           std::string(req[http::field::accept])};
    const Encoding encoding = info.answer_encoding();
    const std::uint64_t announced = head.content_length().value_or(0);
    const bool has_body = head.chunked() || announced > 0;
    const bool keep = req.keep_alive();

    Routed routed = route_of(note.method, target);
    if (!routed.route) {
      co_return co_await answer(note, s_.api.error(routed.refusal, encoding), keep, has_body);
    }
    const Route& route = *routed.route;
    if (has_body && !route.takes_body()) {
      co_return co_await refuse(
          note, s_.api.error(error_answer(400, "ValueError",
                                          note.method + " " + note.path + " takes no body"),
                             encoding));
    }
    if (route.kind == Route::Kind::health) {
      co_return co_await answer(note, s_.api.health(), keep, false);
    }
    const std::string token = bearer_token(req[http::field::authorization]);
    if (token.empty()) {
      co_return co_await answer(
          note,
          s_.api.error(error_answer(401, "AuthenticationError",
                                    "no token: send the header \"Authorization: Bearer <token>\""),
                       encoding),
          keep, has_body);
    }
    const std::size_t limit = route.kind == Route::Kind::put_object ? o_.max_object : o_.max_body;
    if (announced > limit) {
      co_return co_await refuse(note, s_.api.error(too_large(limit), encoding));
    }

    // A body that came with its header (a small call) is carried out with the token's check
    // in one job.
    if (!head.chunked() && buffer_.size() >= announced) {
      std::string body(static_cast<const char*>(buffer_.data().data()), announced);
      buffer_.consume(announced);
      std::string user = "-";
      std::optional<Answer> a =
          co_await carry_out(token, [&] { return s_.api.answer(token, route, info, body, user); });
      if (!a) co_return co_await answer(note, busy(encoding), keep, false);
      note.user = std::move(user);
      co_return co_await answer(note, std::move(*a), keep, false);
    }

    // Otherwise who asks is known before a byte of the body is read.
    std::optional<service::Caller> caller;
    std::optional<Answer> refusal = co_await carry_out(token, [&] {
      try {
        caller = s_.api.authenticate(token);
        return Answer{};
      } catch (...) {
        return s_.api.error(std::current_exception(), encoding);
      }
    });
    if (!caller) {
      // (Kept out of the co_await expression: GCC 12 destroys a conditional's temporaries
      // there twice.)
      Answer out = refusal ? std::move(*refusal) : busy(encoding);
      co_return co_await refuse(note, std::move(out));
    }
    note.user = caller->user_name;
    const std::string key = "user " + std::to_string(caller->user_id);

    // Large bodies, and those of unknown length, are read by a few requests at a time.
    FairSlots& slots = route.kind == Route::Kind::put_object ? s_.object_slots : s_.body_slots;
    const bool large = head.chunked() || announced > kSmallBody;
    if (large) {
      const bool taken = co_await take_slot(slots, key);
      if (!taken) co_return co_await refuse(note, busy(encoding));
    }
    const SlotHeld held{large ? &slots : nullptr, key};

    // An upload is refused (its quota, its name) before the client is asked for the body.
    std::unique_ptr<service::ObjectStore::Writer> writer;
    if (route.kind == Route::Kind::put_object) {
      std::optional<Answer> refused;
      try {
        writer = s_.api.begin_upload(*caller, route, announced);
      } catch (...) {
        refused = s_.api.error(std::current_exception(), encoding);
      }
      if (refused) co_return co_await refuse(note, std::move(*refused));
    }

    if (beast::iequals(req[http::field::expect], "100-continue")) {
      static constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
      deadline_.after(seconds(o_.body_timeout));
      const auto [wec, wn] = co_await asio::async_write(
          stream_, asio::buffer(kContinue.data(), kContinue.size()), kTuple);
      if (wec) {
        log(note, 400);
        co_return false;
      }
    }

    std::optional<Answer> failed;
    std::optional<Answer> a;
    if (route.kind == Route::Kind::put_object) {
      http::request_parser<http::buffer_body> body(std::move(head));
      body.body_limit(limit);
      failed = co_await read_body(body, encoding, limit, writer.get());
      if (failed) {
        writer.reset();  // what it wrote goes now, not once the connection is closed
        co_return co_await incomplete(note, std::move(*failed));
      }
      a = co_await carry_out(key, [&] {
        try {
          return s_.api.uploaded(*writer, info);
        } catch (...) {
          return s_.api.error(std::current_exception(), encoding);
        }
      });
    } else {
      http::request_parser<http::string_body> body(std::move(head));
      body.body_limit(limit);
      failed = co_await read_body(body, encoding, limit, nullptr);
      if (failed) co_return co_await incomplete(note, std::move(*failed));
      const std::string text = std::move(body.get().body());
      a = co_await carry_out(key, [&] { return s_.api.answer(*caller, route, info, text); });
    }
    Answer out = a ? std::move(*a) : busy(encoding);
    co_return co_await answer(note, std::move(out), keep, false);
  }

  Answer busy(Encoding encoding) const {
    return s_.api.error(
        error_answer(503, "RuntimeError",
                     "the server is too busy to take this request; try again later"),
        encoding);
  }

  // Carries out `job` (which must not throw) on this thread once one of the threads that may
  // carry out requests is free for `key` (a slot of `work_slots`): nothing when none was in
  // time, or the server stops.
  template <class F>
  asio::awaitable<std::optional<std::invoke_result_t<F&>>> carry_out(const std::string& key,
                                                                     F job) {
    const bool taken = co_await take_slot(s_.work_slots, key);
    if (!taken) co_return std::nullopt;
    const SlotHeld held{&s_.work_slots, key};
    const struct Busy {
      std::atomic<int>* worker;
      explicit Busy(std::atomic<int>* w) : worker(w) {
        if (worker) worker->fetch_add(1, std::memory_order_relaxed);
      }
      ~Busy() {
        if (worker) worker->fetch_sub(1, std::memory_order_relaxed);
      }
    } busy(tracked_.worker_busy);
    co_return job();
  }

  static ErrorAnswer too_large(std::size_t limit) {
    return error_answer(413, "ValueError",
                        "the body is larger than " + std::to_string(limit) + " bytes");
  }

  // Reads the rest of a body, at no less than the minimum rate; into the object `writer` when
  // given. Nothing when it arrived whole; otherwise the refusal to send, or an Answer of status
  // 0 when the client is gone.
  template <class Parser>
  asio::awaitable<std::optional<Answer>> read_body(Parser& parser, Encoding encoding,
                                                   std::size_t limit,
                                                   service::ObjectStore::Writer* writer) {
    constexpr bool kStreamed = std::is_same_v<Parser, http::request_parser<http::buffer_body>>;
    std::vector<char> chunk(kStreamed ? std::size_t{64} << 10 : 0);
    Pace pace(o_);
    std::optional<ErrorAnswer> refusal;
    while (!parser.is_done()) {
      if constexpr (kStreamed) {
        parser.get().body().data = chunk.data();
        parser.get().body().size = chunk.size();
      }
      deadline_.at(pace.deadline());
      auto [ec, n] = co_await http::async_read_some(stream_, buffer_, parser, kTuple);
      if constexpr (kStreamed) {
        const std::size_t got = chunk.size() - parser.get().body().size;
        try {
          if (got > 0) writer->write(chunk.data(), got);
        } catch (...) {
          co_return s_.api.error(std::current_exception(), encoding);
        }
        if (ec == http::error::need_buffer) ec = {};
      }
      if (ec && deadline_.expired()) {
        refusal = error_answer(408, "ValueError",
                               "the body did not arrive whole: less than " +
                                   std::to_string(o_.min_body_rate) + " bytes per second over " +
                                   shown_seconds(o_.body_timeout) + " s");
      } else if (ec == http::error::body_limit) {
        refusal = too_large(limit);
      } else if (ec && closed_by_peer(ec)) {
        co_return Answer{.status = 0};
      } else if (ec) {
        refusal = error_answer(400, "ValueError", "malformed body: " + ec.message());
      }
      if (refusal) co_return s_.api.error(*refusal, encoding);
      pace.moved(n);
    }
    co_return std::nullopt;
  }

  asio::awaitable<bool> take_slot(FairSlots& slots, const std::string& key) {
    // Most requests find a slot free: no timer is made for them.
    if (slots.try_acquire(key)) co_return true;
    auto timer = std::make_shared<asio::steady_timer>(tracked_.executor, kSlotWait);
    const std::uint64_t ticket = slots.acquire(key, [timer, executor = tracked_.executor] {
      asio::post(executor, [timer] { timer->cancel(); });
    });
    if (ticket == 0) co_return true;
    tracked_.waiting = timer.get();
    co_await timer->async_wait(kTuple);
    tracked_.waiting = nullptr;
    co_return slots.withdraw(ticket) && !s_.stopping;
  }

  // A body that did not arrive whole: nothing was carried out; the refusal is sent unless the
  // client is gone.
  asio::awaitable<bool> incomplete(Note& note, Answer refusal) {
    if (refusal.status != 0) co_return co_await refuse(note, std::move(refusal));
    log(note, 400);
    co_return false;
  }

  // Answers and closes the connection, dropping whatever of the request was not read.
  asio::awaitable<bool> refuse(Note& note, Answer a) {
    co_return co_await answer(note, std::move(a), false, true);
  }

  // Writes the answer; whether the connection goes on. With `unread` a body follows that was
  // not read: the connection is closed.
  asio::awaitable<bool> answer(Note& note, Answer a, bool keep, bool unread) {
    keep = keep && !unread && !s_.stopping;
    const int status = a.status;
    bool sent = false;
    if (a.bytes || a.file) {
      sent = co_await send_raw(a, keep);
    } else {
      http::response<http::string_body> res{static_cast<http::status>(a.status), 11};
      res.set(http::field::content_type, a.content_type);
      res.keep_alive(keep);
      res.body() = std::move(a.text);
      res.prepare_payload();
      deadline_.after(seconds(o_.body_timeout) +
                      seconds(static_cast<double>(res.body().size()) /
                              static_cast<double>(std::max<std::size_t>(1, o_.min_body_rate))));
      const auto [ec, n] = co_await http::async_write(stream_, res, kTuple);
      sent = !ec;
    }
    log(note, status);
    if (sent && unread) co_await linger();
    co_return sent&& keep;
  }

  // A binary Value or a file, after its header, in slices at no less than the minimum rate.
  asio::awaitable<bool> send_raw(const Answer& a, bool keep) {
    const std::uint64_t size = a.size();
    http::response<http::empty_body> res{static_cast<http::status>(a.status), 11};
    res.set(http::field::content_type, a.content_type);
    res.content_length(size);
    res.keep_alive(keep);
    http::response_serializer<http::empty_body> header(res);
    deadline_.after(seconds(o_.body_timeout));
    if (const auto [ec, n] = co_await http::async_write_header(stream_, header, kTuple); ec) {
      co_return false;
    }
    if constexpr (std::is_same_v<Stream, tcp::socket>) {
      if (a.file) {
        const bool sent = co_await send_file(*a.file);
        co_return sent;
      }
    }
    std::vector<char> slice(a.file ? std::min<std::uint64_t>(size, kSlice) : 0);
    Pace pace(o_);
    for (std::uint64_t offset = 0; offset < size;) {
      const char* data = nullptr;
      std::size_t length = static_cast<std::size_t>(std::min<std::uint64_t>(size - offset, kSlice));
      if (a.bytes) {
        data = reinterpret_cast<const char*>(a.bytes->get_binary().data()) + offset;
      } else {
        const ssize_t got = ::pread(a.file->fd, slice.data(), length, static_cast<off_t>(offset));
        if (got <= 0) co_return false;  // the file shrank: the connection is closed
        data = slice.data();
        length = static_cast<std::size_t>(got);
      }
      for (std::size_t done = 0; done < length;) {
        deadline_.at(pace.deadline());
        const auto [ec, n] =
            co_await stream_.async_write_some(asio::buffer(data + done, length - done), kTuple);
        if (ec) co_return false;
        done += n;
        pace.moved(n);
      }
      offset += length;
    }
    co_return true;
  }

  // A file over plain TCP: the kernel copies it from the page cache to the socket.
  asio::awaitable<bool> send_file(const OpenFile& file) {
    boost::system::error_code ec;
    stream_.native_non_blocking(true, ec);
    if (ec) co_return false;
    Pace pace(o_);
    off_t offset = 0;
    while (static_cast<std::uint64_t>(offset) < file.size) {
      const std::size_t left =
          static_cast<std::size_t>(file.size - static_cast<std::uint64_t>(offset));
      const ssize_t n =
          ::sendfile(stream_.native_handle(), file.fd, &offset, std::min(left, kSlice * 64));
      if (n > 0) {
        pace.moved(static_cast<std::size_t>(n));
        continue;
      }
      if (n == 0) co_return false;  // the file shrank: the connection is closed
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) co_return false;
      deadline_.at(pace.deadline());
      const auto [wait] = co_await stream_.async_wait(tcp::socket::wait_write, kTuple);
      if (wait) co_return false;
    }
    co_return true;
  }

  // Lets a refusal reach a client that is still sending: no more is written, and what arrives
  // is dropped, for a moment, before the connection is closed.
  asio::awaitable<void> linger() {
    boost::system::error_code ignored;
    lowest().shutdown(tcp::socket::shutdown_send, ignored);
    deadline_.after(kLinger);
    char sink[16 << 10];
    for (std::size_t dropped = 0; dropped < kLingerBytes;) {
      const auto [ec, n] = co_await lowest().async_read_some(asio::buffer(sink), kTuple);
      if (ec) break;
      dropped += n;
    }
  }

  void log(const Note& note, int status) {
    s_.log.request(note.wall, note.method, note.path, status, Clock::now() - note.start, note.user);
  }

  Stream& stream_;
  Tracked& tracked_;
  Shared& s_;
  const ServerOptions& o_;
  Deadline deadline_;
  beast::flat_buffer buffer_;
};

}  // namespace

asio::awaitable<void> serve_connection(tcp::socket socket, std::shared_ptr<Tracked> tracked,
                                       Shared& shared, ssl::context* tls) {
  const struct Leave {
    Shared& shared;
    std::shared_ptr<Tracked>& tracked;
    ~Leave() {
      tracked->socket = nullptr;
      tracked->waiting = nullptr;
      shared.connections.leave(tracked);
    }
  } leave{shared, tracked};
  try {
    if (tls) {
      beast::ssl_stream<tcp::socket> stream(std::move(socket), *tls);
      tracked->socket = &beast::get_lowest_layer(stream);
      if (shared.stopping) co_return;
      Deadline handshake(*tracked);
      handshake.after(seconds(shared.options.header_timeout));
      const auto [ec] = co_await stream.async_handshake(ssl::stream_base::server, kTuple);
      if (!ec) co_await Session(stream, *tracked, shared).run();
    } else {
      tcp::socket stream(std::move(socket));
      tracked->socket = &stream;
      if (shared.stopping) co_return;
      co_await Session(stream, *tracked, shared).run();
    }
  } catch (const std::exception& e) {
    shared.log.line(std::string("korvalin serve: a connection failed: ") + e.what());
  }
}

}  // namespace korvalin_client::server
