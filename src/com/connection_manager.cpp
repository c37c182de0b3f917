#include "korvalin_client/com/connection_manager.hpp"

#include <mutex>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::com::connection_manager {
namespace {

std::mutex g_mutex;
std::shared_ptr<Backend> g_backend;

}  // namespace

std::shared_ptr<Backend> set_backend(std::shared_ptr<Backend> backend) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_backend.swap(backend);
  return backend;
}

std::shared_ptr<Backend> get_backend() {
  std::shared_ptr<Backend> backend;
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    backend = g_backend;
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
  return g_backend ? g_backend->connection_type() : "none";
}

}  // namespace korvalin_client::com::connection_manager
