#include "korvalin_client/com/connection_manager.hpp"

#include <mutex>

#include "korvalin_client/com/http_backend.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::com::connection_manager {
namespace {

// Both are constant-initialised, so they are usable from other files' static initialisers.
std::mutex g_mutex;
std::shared_ptr<Backend> g_backend;

// The default factory is set from a static initialiser in another file (the embedded
// service's registration): constructed on first use, so the order of initialisation between
// files does not matter.
BackendFactory& default_factory() {
  static BackendFactory factory;
  return factory;
}

// The installed backend, installing the default one when there is none. Call with g_mutex held.
std::shared_ptr<Backend> installed_or_default() {
  if (!g_backend && default_factory()) g_backend = default_factory()();
  return g_backend;
}

// The cache root is kept apart per service: it asks the backend in use who the service is.
const bool g_cache_scoped = [] {
  utils::set_cache_scope_provider([] {
    std::shared_ptr<Backend> backend;
    {
      std::lock_guard<std::mutex> lock(g_mutex);
      backend = installed_or_default();
    }
    return backend ? backend->service_identity() : std::string();
  });
  return true;
}();

}  // namespace

void set_default_backend_factory(BackendFactory factory) {
  std::lock_guard<std::mutex> lock(g_mutex);
  default_factory() = std::move(factory);
}

std::shared_ptr<Backend> set_backend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_backend.swap(backend);
  return backend;
}

std::shared_ptr<Backend> connect(const std::string& url, const std::string& token) {
  return set_backend(std::make_shared<HttpBackend>(url, token));
}

std::shared_ptr<Backend> get_backend() {
  std::shared_ptr<Backend> backend;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    backend = installed_or_default();
  }
  if (!backend) {
    throw RuntimeError(
        "no service backend is installed: install one with "
        "korvalin_client::com::connection_manager::set_backend()");
  }
  return backend;
}

std::string get_connection_type() {
  std::lock_guard<std::mutex> lock(g_mutex);
  const auto backend = installed_or_default();
  return backend ? backend->connection_type() : "none";
}

}  // namespace korvalin_client::com::connection_manager
