// What the HTTP backend's parts share: the transport that sends one request to the server (a
// pool of kept-alive libcurl connections, retries of reads, bounds on answers), reading an
// answer's body, and the object-store client. No libcurl type appears here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "korvalin_client/com/http_backend.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::http {

inline constexpr std::string_view kMsgpackType = "application/msgpack";
inline constexpr std::string_view kJsonType = "application/json";
inline constexpr std::string_view kBytesType = "application/octet-stream";

// The largest answer body accepted: raw bytes (a result chunk, an object), and anything else
// (an encoded value or an error). A larger answer is refused before it is received.
inline constexpr std::uint64_t kMaxRawAnswer = std::uint64_t{2} << 30;
inline constexpr std::uint64_t kMaxEncodedAnswer = std::uint64_t{256} << 20;

struct Request {
  const char* method = "GET";            // "GET", "POST" or "PUT"
  std::string target{};                  // path and query, e.g. "/api/v1/space/get_parameter"
  std::span<const std::uint8_t> body{};  // sent from the caller's buffer, never copied
  std::string_view content_type{};       // of the body
  bool read = false;                     // may be sent again after a connection failure
  bool raw_answer = false;               // a successful answer is raw bytes of any length
};

struct Response {
  long status = 0;
  std::string content_type;  // the media type alone, lower case ("application/msgpack")
  Bytes body;
};

// Sends requests to one server as one user. Thread-safe: each call takes an idle connection
// from the pool (or opens one) and gives it back when done.
class Transport {
 public:
  // Checks the address and the CA file as HttpBackend's constructor says; `options` are final
  // (the environment was read by the caller).
  Transport(std::string url, std::string token, HttpOptions options);
  ~Transport();
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // The answer to `request` when its status is 2xx. An error status throws the exception its
  // body names (throw_error_answer); a failed connection is retried for a read and is a
  // RuntimeError otherwise; an answer over its bound is a RuntimeError.
  Response send(const Request& request);

  // The base address as messages show it (without any user:password@).
  const std::string& shown_url() const { return shown_url_; }
  const std::string& token() const { return token_; }

 private:
  class Pool;
  struct Attempt;
  Attempt attempt(const Request& request);

  std::string url_;
  std::string shown_url_;
  std::string token_;
  std::string authorization_;  // the header line that carries the token
  HttpOptions options_;
  std::string protocol_;   // "http" or "https": the only one a transfer may use
  bool loopback_ = false;  // the host is this machine: never reached through a proxy
  std::unique_ptr<Pool> pool_;
};

// The Value an answer carries: decoded from MessagePack or JSON by its content type, a binary
// Value for raw bytes (the body moved, not copied), null for an empty body. A body that cannot
// be decoded is a RuntimeError naming `what` (e.g. "POST /api/v1/space/get_parameter").
Value decode_answer(Response&& response, std::string_view what);

// Throws what an error answer carries: {"error": {"kind": K, "message": M}} is the exception
// of kind K with message M; any other body is a RuntimeError naming the status and `what`.
// `token` is blanked out of any text shown.
[[noreturn]] void throw_error_answer(Response&& response, std::string_view what,
                                     std::string_view token);

// A client of the server's object endpoints, sending through `transport`.
std::shared_ptr<minio::MinIOAPI> make_object_client(std::shared_ptr<Transport> transport);

}  // namespace korvalin_client::com::http
