// HttpBackend: the client's backend for a `korvalin serve` server (docs/http.md).
//
// Every operation of the catalogue is one POST of its arguments, by name, in MessagePack; the
// object store is the server's object endpoints. Connections are kept alive and reused: the
// backend keeps a pool of them, one per thread calling at the same moment. A read (is_read(),
// object downloads, the service's identity) whose connection fails is tried again after a
// pause taken through korvalin_client::env(); a write is sent at most once. An error the
// server answers is thrown as the exception of its kind with its message, as the embedded
// backend throws it. Thread-safe. The token is sent as a bearer header and never appears in a
// message.
//
// An https server's certificate is always verified, peer and host name, against the system's
// CAs or a CA file of the user's. Plain http:// is for a server on this machine (a loopback
// address or "localhost"); anywhere else it would carry the token in clear, and is refused
// unless the user allows it explicitly.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "korvalin_client/com/backend.hpp"

namespace korvalin_client::com {

struct HttpOptions {
  double connect_timeout = 10;  // seconds to establish a connection
  double stall_timeout = 60;    // a transfer making no progress for this long fails
  int read_attempts = 5;        // tries of a read whose connection fails, in all
  double retry_pause = 0.5;     // first pause between tries (seconds), doubled each time up to 8
  // The CA certificates (a PEM file) that verify an https server; empty: $KORVALIN_CA_FILE,
  // or the system's CAs when that is unset or empty.
  std::string ca_file{};
  // Allows http:// to a server outside this machine; so does KORVALIN_ALLOW_INSECURE=1.
  bool allow_insecure = false;
};

namespace http {
class Transport;
}

class HttpBackend : public Backend {
 public:
  // `url` is the server's base address ("https://host:port", optionally with a path prefix).
  // Anything but http:// or https:// is a ValueError, and so is http:// to a host outside the
  // loopback range (127.0.0.0/8, ::1, "localhost") unless `options.allow_insecure` or
  // KORVALIN_ALLOW_INSECURE=1. A CA file (`options.ca_file`, else $KORVALIN_CA_FILE) that
  // cannot be read is a RuntimeError naming it. The environment is read here, so every way of
  // making the backend (connection_manager::connect, KORVALIN_SERVICE_URL) sees it. Nothing is
  // sent until the first call.
  HttpBackend(std::string url, std::string token, HttpOptions options = {});
  ~HttpBackend() override;
  HttpBackend(const HttpBackend&) = delete;
  HttpBackend& operator=(const HttpBackend&) = delete;

  // "http".
  std::string connection_type() const override;
  // Asked of the server (GET /api/v1/service) on first use and kept.
  std::string service_identity() const override;
  Value call(Operation op, const Args& args) override;
  // A client of the server's object endpoints. The server keeps objects in the bucket of the
  // token's organisation; `organization_id` must be an integer or null (TypeError).
  std::shared_ptr<minio::MinIOAPI> get_minio_client(const Value& organization_id) override;

 private:
  std::shared_ptr<http::Transport> transport_;
  mutable std::mutex identity_mutex_;
  mutable std::optional<std::string> identity_;
};

}  // namespace korvalin_client::com
