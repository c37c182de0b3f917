#include "http_codec.hpp"

#include <algorithm>
#include <cctype>
#include <span>

#include "korvalin_client/service/quota.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::server {
namespace {

// The media type of a Content-Type or one Accept entry: lowercase, without parameters or
// surrounding blanks.
std::string media_type(std::string_view text) {
  text = text.substr(0, text.find(';'));
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.front())))
    text.remove_prefix(1);
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
    text.remove_suffix(1);
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

std::string shown(std::string_view text) {
  constexpr std::size_t kShown = 80;
  std::string out = "\"" + std::string(text.substr(0, kShown));
  if (text.size() > kShown) out += "...";
  return out + "\"";
}

}  // namespace

Encoding body_encoding(std::string_view content_type) {
  const std::string type = media_type(content_type);
  if (type.empty() || type == kJsonType) return Encoding::json;
  if (type == kMsgpackType || type == "application/x-msgpack") return Encoding::msgpack;
  throw ValueError("the body's Content-Type " + shown(type) + " is neither " +
                   std::string(kJsonType) + " nor " + std::string(kMsgpackType));
}

Encoding answer_encoding(Encoding request, std::string_view accept) {
  bool json = false;
  bool msgpack = false;
  while (!accept.empty()) {
    const auto comma = accept.find(',');
    const std::string type = media_type(accept.substr(0, comma));
    json = json || type == kJsonType;
    msgpack = msgpack || type == kMsgpackType || type == "application/x-msgpack";
    accept = comma == std::string_view::npos ? std::string_view() : accept.substr(comma + 1);
  }
  if (json && !msgpack) return Encoding::json;
  if (msgpack && !json) return Encoding::msgpack;
  return request;
}

std::string_view content_type_of(Encoding encoding) {
  return encoding == Encoding::json ? kJsonType : kMsgpackType;
}

Value decode_body(std::string_view body, Encoding encoding) {
  if (body.empty()) return Value::object();
  if (encoding == Encoding::json) return utils::json_loads(body);
  return utils::msgpack_loads(
      std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size()));
}

std::string encode_body(const Value& value, Encoding encoding) {
  if (encoding == Encoding::json)
    return value.dump(-1, ' ', false, Value::error_handler_t::replace);
  const Bytes bytes = utils::msgpack_dumps(value);
  return std::string(bytes.begin(), bytes.end());
}

std::vector<Value> operation_arguments(com::Operation op, Value body) {
  const com::OperationInfo& info = com::info(op);
  if (!body.is_object()) {
    throw TypeError(std::string(info.name) + " takes its arguments as one object, not " +
                    kind_name(body));
  }
  std::vector<Value> values(info.arguments.size());
  std::vector<bool> given(info.arguments.size(), false);
  for (auto& [name, value] : body.items()) {
    const auto it = std::find(info.arguments.begin(), info.arguments.end(), name);
    if (it == info.arguments.end()) {
      throw TypeError(std::string(info.name) + " takes no argument " + shown(name));
    }
    const auto i = static_cast<std::size_t>(it - info.arguments.begin());
    values[i] = std::move(value);
    given[i] = true;
  }
  for (std::size_t i = 0; i < info.positional; ++i) {
    if (!given[i]) {
      throw TypeError(std::string(info.name) + " is missing its argument \"" +
                      std::string(info.arguments[i]) + "\"");
    }
  }
  return values;
}

ErrorAnswer error_answer(int status, std::string kind, std::string message) {
  return ErrorAnswer{status, std::move(kind), std::move(message)};
}

ErrorAnswer error_answer(std::exception_ptr error) {
  try {
    std::rethrow_exception(error);
  } catch (const AuthenticationError& e) {
    return error_answer(401, "AuthenticationError", e.what());
  } catch (const PermissionError& e) {
    return error_answer(403, "PermissionError", e.what());
  } catch (const TypeError& e) {
    return error_answer(400, "TypeError", e.what());
  } catch (const ValueError& e) {
    return error_answer(400, "ValueError", e.what());
  } catch (const KeyError& e) {
    return error_answer(400, "KeyError", e.what());
  } catch (const service::QuotaError& e) {
    const bool bytes = e.limit() == service::QuotaError::Limit::bytes;
    return error_answer(bytes ? 413 : 429, "RuntimeError", e.what());
  } catch (const RuntimeError& e) {
    return error_answer(422, "RuntimeError", e.what());
  } catch (const Error& e) {
    return error_answer(422, "RuntimeError", e.what());
  } catch (...) {
    return error_answer(500, "RuntimeError", "the server failed to answer; its log says why");
  }
}

std::string encode_error(const ErrorAnswer& error, Encoding encoding) {
  return encode_body(Value{{"error", {{"kind", error.kind}, {"message", error.message}}}},
                     encoding);
}

}  // namespace korvalin_client::server
