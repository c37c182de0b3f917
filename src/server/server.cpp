// The server: routes, who asks, bodies in and answers out, and the log line of every request.
#include "korvalin_client/server/server.hpp"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <iostream>
#include <mutex>
#include <thread>

#include "http_codec.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::server {
namespace {

// Raw bodies (objects, result chunks) are written to the connection in slices of this size.
constexpr std::size_t kSlice = std::size_t{1} << 20;
// Longer paths are refused before any route looks at them.
constexpr std::size_t kMaxPath = 1024;
// Bodies over this size (or of no announced size) are read by a few requests at a time: what
// the server holds for bodies in flight stays bounded however many connections send them.
constexpr std::size_t kSmallBody = std::size_t{1} << 20;
constexpr int kLargeBodies = 4;
constexpr int kLargeObjects = 2;

// A counting semaphore: slots for requests with large bodies.
class Slots {
 public:
  explicit Slots(int count) : free_(count) {}
  void acquire() {
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [&] { return free_ > 0; });
    --free_;
  }
  void release() {
    {
      std::lock_guard lock(mutex_);
      ++free_;
    }
    freed_.notify_one();
  }

 private:
  std::mutex mutex_;
  std::condition_variable freed_;
  int free_;
};

// Holds a slot, when the body is large, for the life of the request.
class SlotFor {
 public:
  SlotFor(Slots& slots, bool needed) : slots_(needed ? &slots : nullptr) {
    if (slots_) slots_->acquire();
  }
  ~SlotFor() {
    if (slots_) slots_->release();
  }
  SlotFor(const SlotFor&) = delete;
  SlotFor& operator=(const SlotFor&) = delete;

 private:
  Slots* slots_;
};

// Text for one log field: control characters (a decoded "%0a" in a path) are shown escaped,
// so no request can forge a line of the log.
std::string loggable(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out;
}

// What the log line of the request this thread is serving says besides the request itself.
struct RequestNote {
  std::chrono::steady_clock::time_point start;
  std::string user = "-";
};
thread_local RequestNote t_note;

std::string utc_now() {
  const std::time_t t = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

// The bearer token of a request, or empty.
std::string bearer_token(const httplib::Request& req) {
  const std::string header = req.get_header_value("Authorization");
  constexpr std::string_view kBearer = "Bearer ";
  if (header.size() <= kBearer.size() || header.compare(0, kBearer.size(), kBearer) != 0) return {};
  return header.substr(kBearer.size());
}

// A body read whole up to `limit` bytes; past that it is read to its end and dropped, so the
// connection stays usable, and `too_large` is set.
template <class Buffer>
bool read_body(const httplib::ContentReader& reader, Buffer& body, std::size_t limit,
               std::size_t announced) {
  bool too_large = announced > limit;
  if (!too_large) body.reserve(announced);
  reader([&](const char* data, std::size_t length) {
    if (too_large || length > limit - body.size()) {
      too_large = true;
      Buffer().swap(body);
      return true;
    }
    body.insert(body.end(), data, data + length);
    return true;
  });
  return !too_large;
}

std::size_t announced_length(const httplib::Request& req) {
  const std::string length = req.get_header_value("Content-Length");
  if (length.empty()) return 0;
  try {
    return static_cast<std::size_t>(std::stoull(length));
  } catch (...) {
    return 0;
  }
}

void answer_error(httplib::Response& res, const ErrorAnswer& error, Encoding encoding) {
  res.status = error.status;
  res.set_content(encode_error(error, encoding), std::string(content_type_of(encoding)).c_str());
}

// The encoding the answer to `req` is in when the request had no body of its own.
Encoding answer_encoding_of(const httplib::Request& req) {
  return answer_encoding(Encoding::json, req.get_header_value("Accept"));
}

}  // namespace

struct Server::Impl {
  std::shared_ptr<service::Engine> engine;
  ServerOptions options;
  httplib::Server http;
  int port = -1;
  std::atomic<bool> stopping{false};
  std::atomic<bool> listening{false};
  std::mutex log_mutex;
  Slots large_bodies{kLargeBodies};
  Slots large_objects{kLargeObjects};

  Impl(std::shared_ptr<service::Engine> e, ServerOptions o)
      : engine(std::move(e)), options(std::move(o)) {
    if (!engine) throw ValueError("the server needs an engine, not null");
    if (options.threads < 1) throw ValueError("threads must be at least 1");
    const int threads = options.threads;
    http.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    http.set_keep_alive_max_count(1'000'000);
    http.set_keep_alive_timeout(options.keep_alive_seconds);
    http.set_tcp_nodelay(true);
    // SO_REUSEADDR alone: a restart binds at once over the old connections' TIME_WAIT, but a
    // second server on the same address is refused (httplib's default also sets SO_REUSEPORT,
    // under which the kernel would share one port between two stores' servers).
    http.set_socket_options([](socket_t sock) {
      int yes = 1;
      ::setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    });
    http.set_payload_max_length(std::max(options.max_body, options.max_object));
    routes();
  }

  void log(const httplib::Request& req, const httplib::Response& res) {
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                                t_note.start)
                          .count();
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.1fms", ms);
    const std::string line = utc_now() + " " + loggable(req.method) + " " + loggable(req.path) + " " +
                             std::to_string(res.status) + " " + duration + " " + t_note.user;
    std::lock_guard lock(log_mutex);
    if (options.log) {
      options.log(line);
    } else {
      std::cerr << line << '\n';
    }
  }

  // The caller a request's token names; an AuthenticationError when there is none.
  service::Caller caller_of(const httplib::Request& req) {
    const std::string token = bearer_token(req);
    if (token.empty()) {
      throw AuthenticationError("no token: send the header \"Authorization: Bearer <token>\"");
    }
    std::optional<service::Caller> caller = engine->authenticate(token);
    if (!caller) throw AuthenticationError("the token is not valid (unknown or revoked)");
    t_note.user = caller->user_name;
    return std::move(*caller);
  }

  void operation(const httplib::Request& req, httplib::Response& res,
                 const httplib::ContentReader& reader) {
    Encoding answer = Encoding::json;  // until the request's own encoding is known
    std::string body;
    bool body_read = false;
    try {
      const Encoding request = body_encoding(req.get_header_value("Content-Type"));
      answer = answer_encoding(request, req.get_header_value("Accept"));
      const std::optional<com::Operation> op =
          com::find_operation(req.matches[1].str(), req.matches[2].str());
      const service::Caller caller = caller_of(req);
      body_read = true;
      const std::size_t announced = announced_length(req);
      const SlotFor slot(large_bodies, !req.has_header("Content-Length") || announced > kSmallBody);
      if (!read_body(reader, body, options.max_body, announced)) {
        return answer_error(res, error_answer(413, "ValueError", body_too_large(options.max_body)),
                            answer);
      }
      if (!op) {
        return answer_error(
            res, error_answer(404, "RuntimeError", "no operation " + req.matches[1].str() + "." +
                                                       req.matches[2].str()),
            answer);
      }
      Value decoded = decode_body(body, request);
      std::string().swap(body);
      const std::vector<Value> values = operation_arguments(*op, std::move(decoded));
      std::vector<const Value*> pointers;
      for (const Value& v : values) pointers.push_back(&v);
      Value result = engine->call(caller, *op, com::Args(pointers));
      if (result.is_binary()) return send_bytes(res, std::move(result));
      res.set_content(encode_body(result, answer), std::string(content_type_of(answer)).c_str());
    } catch (...) {
      if (!body_read) read_body(reader, body, 0, 0);  // drop it: the connection goes on
      answer_error(res, error_answer(std::current_exception()), answer);
    }
  }

  static std::string body_too_large(std::size_t limit) {
    return "the body is larger than " + std::to_string(limit) + " bytes";
  }

  // A binary Value as a raw body, written from the Value itself.
  static void send_bytes(httplib::Response& res, Value bytes) {
    auto held = std::make_shared<Value>(std::move(bytes));
    const std::size_t size = held->get_binary().size();
    res.set_content_provider(
        size, std::string(kBytesType).c_str(),
        [held](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          const auto& data = held->get_binary();
          return sink.write(reinterpret_cast<const char*>(data.data()) + offset,
                            std::min(length, kSlice));
        });
  }

  void put_object(const httplib::Request& req, httplib::Response& res,
                  const httplib::ContentReader& reader) {
    const Encoding answer = answer_encoding_of(req);
    Bytes data;
    bool body_read = false;
    try {
      const service::Caller caller = caller_of(req);
      body_read = true;
      const SlotFor slot(large_objects, true);
      if (!read_body(reader, data, options.max_object, announced_length(req))) {
        return answer_error(
            res, error_answer(413, "ValueError", body_too_large(options.max_object)), answer);
      }
      const Value locator =
          engine->objects_of(caller)->upload(req.get_param_value("name"), data,
                                             req.get_param_value("category"),
                                             req.get_param_value("format"));
      res.set_content(encode_body(locator, answer), std::string(content_type_of(answer)).c_str());
    } catch (...) {
      if (!body_read) read_body(reader, data, 0, 0);
      answer_error(res, error_answer(std::current_exception()), answer);
    }
  }

  void get_object(const httplib::Request& req, httplib::Response& res) {
    const Encoding answer = answer_encoding_of(req);
    try {
      const service::Caller caller = caller_of(req);
      const std::string rest = req.matches[1].str();
      const auto slash = rest.find('/');
      if (slash == std::string::npos) throw ValueError("an object path is <bucket>/<object>");
      const Value locator{{"bucket", rest.substr(0, slash)}, {"object", rest.substr(slash + 1)}};
      const std::string path = engine->objects_of(caller)->resolve(locator);
      send_file(res, path);
    } catch (...) {
      answer_error(res, error_answer(std::current_exception()), answer);
    }
  }

  // A file as a raw body, read in slices as the connection takes them.
  static void send_file(httplib::Response& res, const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) {
      const int error = errno;
      if (fd >= 0) ::close(fd);
      throw RuntimeError("cannot read the object: " + std::string(std::strerror(error)));
    }
    auto file = std::shared_ptr<int>(new int(fd), [](int* f) {
      ::close(*f);
      delete f;
    });
    auto buffer = std::make_shared<std::vector<char>>();
    res.set_content_provider(
        static_cast<std::size_t>(st.st_size), std::string(kBytesType).c_str(),
        [file, buffer](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
          buffer->resize(std::min(length, kSlice));
          const ssize_t n =
              ::pread(*file, buffer->data(), buffer->size(), static_cast<off_t>(offset));
          if (n <= 0) return false;  // the file shrank: the connection is closed
          return sink.write(buffer->data(), static_cast<std::size_t>(n));
        });
  }

  void routes() {
    http.set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
      t_note = RequestNote{std::chrono::steady_clock::now(), "-"};
      if (req.path.size() <= kMaxPath) return httplib::Server::HandlerResponse::Unhandled;
      res.set_header("Connection", "close");
      answer_error(res, error_answer(414, "ValueError", "the path is too long"), Encoding::json);
      return httplib::Server::HandlerResponse::Handled;
    });
    http.Get("/health", [this](const httplib::Request&, httplib::Response& res) {
      res.set_content(
          Value{{"status", "ok"}, {"service_identity", engine->service_identity()}}.dump(),
          std::string(kJsonType).c_str());
    });
    http.Get("/api/v1/service", [this](const httplib::Request& req, httplib::Response& res) {
      const Encoding answer = answer_encoding_of(req);
      try {
        const service::Caller caller = caller_of(req);
        res.set_content(encode_body(Value{{"service_identity", engine->service_identity()},
                                          {"user_name", caller.user_name},
                                          {"organization_id", caller.organization_id}},
                                    answer),
                        std::string(content_type_of(answer)).c_str());
      } catch (...) {
        answer_error(res, error_answer(std::current_exception()), answer);
      }
    });
    http.Post("/api/v1/([a-z_]+)/([a-z_]+)",
              [this](const httplib::Request& req, httplib::Response& res,
                     const httplib::ContentReader& reader) { operation(req, res, reader); });
    http.Put("/api/v1/objects",
             [this](const httplib::Request& req, httplib::Response& res,
                    const httplib::ContentReader& reader) { put_object(req, res, reader); });
    http.Get("/api/v1/objects/(.+)", [this](const httplib::Request& req, httplib::Response& res) {
      get_object(req, res);
    });
    // What no route answered, and httplib's own refusals (a body over the limit, a malformed
    // request), get an error body like every other refusal.
    http.set_error_handler(httplib::Server::HandlerWithResponse(
        [](const httplib::Request& req, httplib::Response& res) {
      if (!res.body.empty() || res.content_length_ > 0) {
        return httplib::Server::HandlerResponse::Unhandled;
      }
      const int status = res.status;
      const std::string kind = status == 413 || status == 400 ? "ValueError" : "RuntimeError";
      std::string message = status == 404   ? "no such endpoint: " + req.method + " " + req.path
                            : status == 413 ? std::string("the body is too large")
                                                            : "the request was refused (status " +
                                                  std::to_string(status) + ")";
      answer_error(res, error_answer(status, kind, std::move(message)), Encoding::json);
      return httplib::Server::HandlerResponse::Handled;
    }));
    http.set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
          answer_error(res, error_answer(error), Encoding::json);
        });
    http.set_logger([this](const httplib::Request& req, const httplib::Response& res) {
      log(req, res);
    });
  }
};

Server::Server(std::shared_ptr<service::Engine> engine, ServerOptions options)
    : impl_(std::make_unique<Impl>(std::move(engine), std::move(options))) {}

Server::~Server() { stop(); }

int Server::bind() {
  if (impl_->port >= 0) return impl_->port;
  const std::string& host = impl_->options.host;
  const int wanted = impl_->options.port;
  const int port = wanted == 0 ? impl_->http.bind_to_any_port(host)
                               : (impl_->http.bind_to_port(host, wanted) ? wanted : -1);
  if (port <= 0) {
    throw RuntimeError("cannot listen on " + host + ":" + std::to_string(wanted) + ": " +
                       std::strerror(errno));
  }
  impl_->port = port;
  return port;
}

int Server::port() const { return impl_->port; }

void Server::run() {
  bind();
  impl_->listening = true;
  if (!impl_->stopping) impl_->http.listen_after_bind();
  impl_->listening = false;
}

void Server::stop() {
  impl_->stopping = true;
  // run() either sees `stopping` and never starts, or is starting: wait until it runs.
  while (impl_->listening && !impl_->http.is_running()) std::this_thread::yield();
  impl_->http.stop();
}

}  // namespace korvalin_client::server
