// Reading the server's answers: the Value a successful one carries, and the exception an error
// one names, raised with the type and text the embedded backend raises for the same call.
#include <cctype>
#include <optional>
#include <utility>

#include "http_transport.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::com::http {
namespace {

constexpr std::size_t kShownBody = 200;

bool is_msgpack(std::string_view type) {
  return type == kMsgpackType || type == "application/x-msgpack";
}

// Text safe to show in a message: at most `limit` bytes, unprintable bytes as '?', and the
// token (should a server echo it) blanked out.
std::string shown(std::string_view text, std::size_t limit, std::string_view token) {
  std::string out(text.substr(0, limit));
  if (token.size() >= 8) {
    for (std::size_t at = out.find(token); at != std::string::npos; at = out.find(token, at)) {
      out.replace(at, token.size(), "***");
    }
  }
  for (char& c : out) {
    if (!std::isprint(static_cast<unsigned char>(c))) c = c == '\n' ? ' ' : '?';
  }
  return out;
}

[[noreturn]] void throw_of_kind(const std::string& kind, const std::string& message) {
  if (kind == "TypeError") throw TypeError(message);
  if (kind == "ValueError") throw ValueError(message);
  if (kind == "KeyError") throw KeyError(message);
  if (kind == "PermissionError") throw PermissionError(message);
  if (kind == "AuthenticationError") throw AuthenticationError(message);
  throw RuntimeError(message);  // RuntimeError, or a kind this client does not know
}

}  // namespace

Value decode_answer(Response&& response, std::string_view what) {
  const std::string& type = response.content_type;
  if (type == kBytesType) return Value::binary(std::move(response.body));
  if (response.body.empty()) return nullptr;
  try {
    if (is_msgpack(type)) return utils::msgpack_loads(response.body);
    if (type == kJsonType || type.empty()) {
      return utils::json_loads(std::string_view(reinterpret_cast<const char*>(response.body.data()),
                                                response.body.size()));
    }
  } catch (const ValueError& e) {
    throw RuntimeError("the service's answer to " + std::string(what) +
                       " cannot be read: " + e.what());
  }
  throw RuntimeError("the service answered " + std::string(what) + " with content of type \"" +
                     shown(type, 80, {}) + "\", which this client cannot read");
}

void throw_error_answer(Response&& response, std::string_view what, std::string_view token) {
  const long status = response.status;
  const std::string body_text = shown(
      std::string_view(reinterpret_cast<const char*>(response.body.data()), response.body.size()),
      kShownBody, token);
  std::optional<Value> body;
  try {
    body = decode_answer(std::move(response), what);
  } catch (const RuntimeError&) {
    // not an error record: said below
  }
  if (body && body->is_object() && body->contains("error")) {
    const Value& error = (*body)["error"];
    if (error.is_object() && error.contains("kind") && error.contains("message") &&
        error["kind"].is_string() && error["message"].is_string()) {
      std::string message = error["message"].get<std::string>();
      if (token.size() >= 8 && message.find(token) != std::string::npos) {
        message = shown(message, message.size(), token);
      }
      throw_of_kind(error["kind"].get<std::string>(), message);
    }
  }
  throw RuntimeError("the service answered HTTP " + std::to_string(status) + " to " +
                     std::string(what) + " without an error record" +
                     (body_text.empty() ? std::string() : ": " + body_text));
}

}  // namespace korvalin_client::com::http
