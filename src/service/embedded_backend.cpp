#include "korvalin_client/service/embedded_backend.hpp"

#include <utility>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {

EmbeddedBackend::EmbeddedBackend(std::string storage_dir)
    : engine_(std::make_shared<Engine>(std::move(storage_dir))) {}

EmbeddedBackend::EmbeddedBackend(std::shared_ptr<Engine> engine) : engine_(std::move(engine)) {
  if (!engine_) throw ValueError("EmbeddedBackend needs an engine, not null");
}

std::string EmbeddedBackend::service_identity() const { return engine_->service_identity(); }

Value EmbeddedBackend::call(com::Operation op, const com::Args& args) {
  return engine_->call(op, args);
}

std::shared_ptr<com::minio::MinIOAPI> EmbeddedBackend::get_minio_client(
    const Value& organization_id) {
  return engine_->get_minio_client(organization_id);
}

}  // namespace korvalin_client::service
