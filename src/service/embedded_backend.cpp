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
  const Caller& local = engine_->local_caller();
  // Compared before any lookup: another organisation's id answers alike whether it exists.
  const std::int64_t org = organization_id.is_null()
                               ? local.organization_id
                               : expect_int(organization_id, "organization_id");
  if (org != local.organization_id) {
    throw PermissionError("user \"" + local.user_name + "\" may not use the object store of " +
                          "another organisation (" + std::to_string(org) + ")");
  }
  // The local user's view, which keeps the engine alive as long as it is held.
  struct Held {
    std::shared_ptr<Engine> engine;
    std::shared_ptr<ObjectStore> objects;
  };
  auto held = std::make_shared<Held>(Held{engine_, engine_->objects_of(local)});
  return std::shared_ptr<com::minio::MinIOAPI>(held, held->objects.get());
}

}  // namespace korvalin_client::service
