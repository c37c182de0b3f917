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
  std::shared_ptr<ObjectStore> objects = engine_->get_minio_client(organization_id);
  const Caller& local = engine_->local_caller();
  if (objects->organization_id() != local.organization_id) {
    throw PermissionError("user \"" + local.user_name + "\" may not use the object store of " +
                          "another organisation (" + std::to_string(objects->organization_id()) +
                          ")");
  }
  return objects;
}

}  // namespace korvalin_client::service
