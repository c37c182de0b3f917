// EmbeddedBackend: the service in this process. A com::Backend whose every function is
// answered by a service::Engine over the local storage directory, so the client runs on one
// machine with no server:
//
//   com::connection_manager::set_backend(std::make_shared<service::EmbeddedBackend>());
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/com/backend.hpp"
#include "korvalin_client/service/engine.hpp"

namespace korvalin_client::service {

class EmbeddedBackend : public com::Backend {
 public:
  // An Engine of its own over `storage_dir` (empty: utils::get_local_storage_dir()).
  explicit EmbeddedBackend(std::string storage_dir = "");
  // Shares an Engine (for example with device execution in the same process).
  explicit EmbeddedBackend(std::shared_ptr<Engine> engine);

  Engine& engine() { return *engine_; }
  const std::shared_ptr<Engine>& shared_engine() const { return engine_; }

  std::string connection_type() const override { return "embedded"; }
  // The identity of the store, made when it was created.
  std::string service_identity() const override;

  // The engine answers as the store's local user.
  Value call(com::Operation op, const com::Args& args) override;

  // The object store of the local user's organisation, as the local user (Engine::objects_of);
  // another organisation's is a PermissionError.
  std::shared_ptr<com::minio::MinIOAPI> get_minio_client(const Value& organization_id) override;

 private:
  std::shared_ptr<Engine> engine_;
};

}  // namespace korvalin_client::service
