// What the server reads from and writes to a body: operation arguments in JSON or MessagePack,
// answers in the caller's encoding, and errors as a status with {"error": {"kind", "message"}}.
#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "korvalin_client/com/operations.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::server {

enum class Encoding { json, msgpack };

inline constexpr std::string_view kJsonType = "application/json";
inline constexpr std::string_view kMsgpackType = "application/msgpack";
inline constexpr std::string_view kBytesType = "application/octet-stream";

// The encoding a body of `content_type` is in (parameters such as "; charset=utf-8" ignored);
// an empty type is JSON. Any other type is a ValueError naming it.
Encoding body_encoding(std::string_view content_type);
// The encoding of the answer: the request's, unless `accept` names only the other one.
Encoding answer_encoding(Encoding request, std::string_view accept);
std::string_view content_type_of(Encoding encoding);

// Decodes a request body; malformed input, or JSON nested deeper than kMaxValueDepth, is a
// ValueError saying what is wrong. An empty body is an empty object.
Value decode_body(std::string_view body, Encoding encoding);
std::string encode_body(const Value& value, Encoding encoding);

// The arguments of `op` from a body's object, in the catalogue's order: every positional one
// present (TypeError naming a missing one), the keywords null when left out, no name the
// operation does not take (TypeError naming it).
std::vector<Value> operation_arguments(com::Operation op, Value body);

// An error as the server answers it.
struct ErrorAnswer {
  int status = 500;
  std::string kind;
  std::string message;
};
// The answer for what a request threw: the library's error kinds keep their message; anything
// else is a 500 whose message says only that the server failed (the log has the rest).
ErrorAnswer error_answer(std::exception_ptr error);
ErrorAnswer error_answer(int status, std::string kind, std::string message);
std::string encode_error(const ErrorAnswer& error, Encoding encoding);

}  // namespace korvalin_client::server
