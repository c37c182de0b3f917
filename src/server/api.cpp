#include "api.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::server {
namespace {

bool is_word(std::string_view s) {
  if (s.empty()) return false;
  for (const char c : s) {
    if (!((c >= 'a' && c <= 'z') || c == '_')) return false;
  }
  return true;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Percent-decoding ("+" is a space in a query); nothing for a malformed escape.
std::optional<std::string> decoded(std::string_view text, bool query) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      if (i + 2 >= text.size()) return std::nullopt;
      const int hi = hex_digit(text[i + 1]);
      const int lo = hex_digit(text[i + 2]);
      if (hi < 0 || lo < 0) return std::nullopt;
      out += static_cast<char>(hi * 16 + lo);
      i += 2;
    } else if (query && text[i] == '+') {
      out += ' ';
    } else {
      out += text[i];
    }
  }
  return out;
}

Routed refused(int status, std::string kind, std::string message) {
  return Routed{std::nullopt, error_answer(status, std::move(kind), std::move(message))};
}

Routed routed(Route route) { return Routed{std::move(route), {}}; }

}  // namespace

Routed route_of(std::string_view method, std::string_view target) {
  if (target.size() > kMaxTarget) return refused(414, "ValueError", "the path is too long");
  const std::size_t mark = target.find('?');
  const std::string_view path = target.substr(0, mark);
  const std::string_view query =
      mark == std::string_view::npos ? std::string_view() : target.substr(mark + 1);
  const auto none = [&] {
    return refused(404, "RuntimeError",
                   "no such endpoint: " + std::string(method) + " " + std::string(path));
  };
  const auto bad_escape = [] {
    return refused(400, "ValueError", "the path has a malformed %-escape");
  };
  constexpr std::string_view kApi = "/api/v1/";
  constexpr std::string_view kObjects = "/api/v1/objects";

  if (path == "/health") return method == "GET" ? routed(Route{}) : none();
  if (!path.starts_with(kApi)) return none();
  if (path == "/api/v1/service") {
    return method == "GET" ? routed(Route{.kind = Route::Kind::service}) : none();
  }
  if (path == kObjects) {
    if (method != "PUT") return none();
    Route route{.kind = Route::Kind::put_object};
    std::string_view rest = query;
    while (!rest.empty()) {
      const std::size_t amp = rest.find('&');
      const std::string_view field = rest.substr(0, amp);
      rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
      const std::size_t eq = field.find('=');
      const std::optional<std::string> key = decoded(field.substr(0, eq), true);
      const std::optional<std::string> value =
          decoded(eq == std::string_view::npos ? std::string_view() : field.substr(eq + 1), true);
      if (!key || !value) return bad_escape();
      if (*key == "name") route.name = *value;
      if (*key == "category") route.category = *value;
      if (*key == "format") route.format = *value;
    }
    return routed(std::move(route));
  }
  if (path.starts_with(kObjects) && path[kObjects.size()] == '/') {
    if (method != "GET") return none();
    std::optional<std::string> object = decoded(path.substr(kObjects.size() + 1), false);
    if (!object) return bad_escape();
    return routed(Route{.kind = Route::Kind::get_object, .object = std::move(*object)});
  }
  const std::string_view call = path.substr(kApi.size());
  const std::size_t slash = call.find('/');
  if (slash == std::string_view::npos) return none();
  const std::string_view module = call.substr(0, slash);
  const std::string_view name = call.substr(slash + 1);
  if (!is_word(module) || !is_word(name) || method != "POST") return none();
  const std::optional<com::Operation> op = com::find_operation(module, name);
  if (!op) {
    return refused(404, "RuntimeError",
                   "no operation " + std::string(module) + "." + std::string(name));
  }
  return routed(Route{.kind = Route::Kind::operation, .op = *op});
}

Encoding RequestHead::answer_encoding() const {
  Encoding request = Encoding::json;
  try {
    request = body_encoding(content_type);
  } catch (const Error&) {
  }
  return server::answer_encoding(request, accept);
}

OpenFile::~OpenFile() {
  if (fd >= 0) ::close(fd);
}

std::uint64_t Answer::size() const {
  if (bytes) return bytes->get_binary().size();
  if (file) return file->size;
  return text.size();
}

Api::Api(std::shared_ptr<service::Engine> engine, std::function<void(const std::string&)> log)
    : engine_(std::move(engine)), log_(std::move(log)) {
  if (!engine_) throw ValueError("the server needs an engine, not null");
  health_ = Value{{"status", "ok"}, {"service_identity", engine_->service_identity()}}.dump();
  const std::string& dir = engine_->storage_dir();
  std::error_code ec;
  const std::string real = std::filesystem::weakly_canonical(dir, ec).string();
  for (const std::string& name : {dir, ec ? dir : real}) {
    std::string trimmed = name;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    if (trimmed.size() > 1) storage_names_.push_back(trimmed);
  }
}

Answer Api::health() const { return Answer{200, std::string(kJsonType), health_, {}, {}}; }

service::Caller Api::authenticate(std::string_view token) {
  if (token.empty()) {
    throw AuthenticationError("no token: send the header \"Authorization: Bearer <token>\"");
  }
  std::optional<service::Caller> caller = engine_->authenticate(token);
  if (!caller) throw AuthenticationError("the token is not valid (unknown or revoked)");
  return std::move(*caller);
}

Answer Api::encoded(const Value& value, Encoding encoding) const {
  return Answer{200, std::string(content_type_of(encoding)), encode_body(value, encoding), {}, {}};
}

Answer Api::answer(const service::Caller& caller, const Route& route, const RequestHead& head,
                   std::string_view body) {
  Encoding answer_in = head.answer_encoding();
  try {
    switch (route.kind) {
      case Route::Kind::health:
        return health();
      case Route::Kind::service:
        return encoded(Value{{"service_identity", engine_->service_identity()},
                             {"user_name", caller.user_name},
                             {"organization_id", caller.organization_id}},
                       answer_in);
      case Route::Kind::get_object:
        return object_file(caller, route);
      case Route::Kind::put_object: {
        const auto writer = begin_upload(caller, route, body.size());
        writer->write(body.data(), body.size());
        return uploaded(*writer, head);
      }
      case Route::Kind::operation: {
        const Encoding request = body_encoding(head.content_type);
        answer_in = server::answer_encoding(request, head.accept);
        const std::vector<Value> values = operation_arguments(route.op, decode_body(body, request));
        std::vector<const Value*> pointers;
        pointers.reserve(values.size());
        for (const Value& v : values) pointers.push_back(&v);
        Value result = engine_->call(caller, route.op, com::Args(pointers));
        if (result.is_binary()) {
          return Answer{200,
                        std::string(kBytesType),
                        {},
                        std::make_shared<const Value>(std::move(result)),
                        {}};
        }
        return encoded(result, answer_in);
      }
    }
    throw RuntimeError("no such endpoint");
  } catch (...) {
    return error(std::current_exception(), answer_in);
  }
}

Answer Api::answer(std::string_view token, const Route& route, const RequestHead& head,
                   std::string_view body, std::string& user) {
  try {
    std::optional<service::Store::ReadSnapshot> snapshot;
    if (route.kind == Route::Kind::operation && com::is_read(route.op)) {
      snapshot.emplace(engine_->store());
    }
    const service::Caller caller = authenticate(token);
    user = caller.user_name;
    return answer(caller, route, head, body);
  } catch (...) {
    return error(std::current_exception(), head.answer_encoding());
  }
}

Answer Api::object_file(const service::Caller& caller, const Route& route) {
  const auto slash = route.object.find('/');
  if (slash == std::string::npos) throw ValueError("an object path is <bucket>/<object>");
  const Value locator{{"bucket", route.object.substr(0, slash)},
                      {"object", route.object.substr(slash + 1)}};
  // What the caller may not read answers as what does not exist.
  const std::optional<std::string> path = engine_->objects_of(caller)->resolve(locator);
  const int fd = path ? ::open(path->c_str(), O_RDONLY | O_CLOEXEC) : -1;
  struct stat st {};
  if (fd < 0 || ::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    const int err = path ? errno : ENOENT;
    if (fd >= 0) ::close(fd);
    if (fd >= 0 || err == ENOENT || err == ENOTDIR) {
      return error(error_answer(404, "RuntimeError", service::ObjectStore::missing(route.object)),
                   Encoding::json);
    }
    throw RuntimeError("cannot read the object \"" + route.object + "\": " + std::strerror(err));
  }
  return Answer{200,
                std::string(kBytesType),
                {},
                {},
                std::make_shared<const OpenFile>(fd, static_cast<std::uint64_t>(st.st_size))};
}

std::unique_ptr<service::ObjectStore::Writer> Api::begin_upload(const service::Caller& caller,
                                                                const Route& route,
                                                                std::uint64_t announced) {
  auto writer =
      engine_->objects_of(caller)->begin_upload(route.name, route.category, route.format);
  writer->expect(announced);
  return writer;
}

Answer Api::uploaded(service::ObjectStore::Writer& writer, const RequestHead& head) {
  return encoded(writer.commit(), head.answer_encoding());
}

std::string Api::without_paths(std::string message) const {
  for (const std::string& dir : storage_names_) {
    for (std::size_t at = message.find(dir); at != std::string::npos; at = message.find(dir, at)) {
      const std::size_t end = at + dir.size();
      if (end < message.size() && message[end] == '/') {
        message.erase(at, dir.size() + 1);
      } else {
        message.replace(at, dir.size(), "the store");
        at += 9;
      }
    }
  }
  return message;
}

Answer Api::error(std::exception_ptr error, Encoding encoding) const {
  ErrorAnswer answer = error_answer(error);
  if (answer.status == 500) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      if (log_) log_(std::string("korvalin serve: a request failed: ") + e.what());
    } catch (...) {
      if (log_) log_("korvalin serve: a request failed with an unknown exception");
    }
  }
  return this->error(answer, encoding);
}

Answer Api::error(const ErrorAnswer& error, Encoding encoding) const {
  ErrorAnswer shown = error;
  shown.message = without_paths(std::move(shown.message));
  return Answer{
      error.status, std::string(content_type_of(encoding)), encode_error(shown, encoding), {}, {}};
}

}  // namespace korvalin_client::server
