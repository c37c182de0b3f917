// HttpBackend: every operation of the catalogue is POST /api/v1/<module>/<name> with its
// arguments as one MessagePack object by the catalogue's names; a read may be sent again after
// a connection failure, a write never (operations.hpp: is_read).
#include "korvalin_client/com/http_backend.hpp"

#include <cstdlib>
#include <string_view>
#include <utility>

#include "http_transport.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"

namespace korvalin_client::com {
namespace {

// `options` with what the user's environment adds: the CA file of KORVALIN_CA_FILE when the
// code names none, and KORVALIN_ALLOW_INSECURE=1.
HttpOptions with_environment(HttpOptions options) {
  if (options.ca_file.empty()) {
    if (const char* file = std::getenv("KORVALIN_CA_FILE")) options.ca_file = file;
  }
  if (const char* allow = std::getenv("KORVALIN_ALLOW_INSECURE")) {
    options.allow_insecure = options.allow_insecure || std::string_view(allow) == "1";
  }
  return options;
}

}  // namespace

HttpBackend::HttpBackend(std::string url, std::string token, HttpOptions options)
    : transport_(std::make_shared<http::Transport>(std::move(url), std::move(token),
                                                   with_environment(std::move(options)))) {}

HttpBackend::~HttpBackend() = default;

std::string HttpBackend::connection_type() const { return "http"; }

std::string HttpBackend::service_identity() const {
  std::lock_guard lock(identity_mutex_);
  if (!identity_) {
    const char* what = "GET /api/v1/service";
    const Value service = http::decode_answer(
        transport_->send({.method = "GET", .target = "/api/v1/service", .read = true}), what);
    identity_ = require_text(service, "service_identity");
  }
  return *identity_;
}

Value HttpBackend::call(Operation op, const Args& args) {
  const OperationInfo& operation = info(op);
  Value arguments = Value::object();
  for (std::size_t i = 0; i < operation.arguments.size() && i < args.size(); ++i) {
    arguments[std::string(operation.arguments[i])] = args[i];
  }
  const Bytes body = utils::msgpack_dumps(arguments);
  std::string target = "/api/v1/";
  target.append(operation.module).append("/").append(operation.name);
  http::Response answer = transport_->send({.method = "POST",
                                            .target = target,
                                            .body = body,
                                            .content_type = http::kMsgpackType,
                                            .read = is_read(op)});
  return http::decode_answer(std::move(answer), "POST " + target);
}

std::shared_ptr<minio::MinIOAPI> HttpBackend::get_minio_client(const Value& organization_id) {
  expect_int_or_null(organization_id, "organization_id");
  return http::make_object_client(transport_);
}

}  // namespace korvalin_client::com
