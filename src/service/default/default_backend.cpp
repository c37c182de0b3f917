// Registers the backend installed on first use when a program installs none: a `korvalin serve`
// server when KORVALIN_SERVICE_URL is set (as the user of KORVALIN_TOKEN), otherwise the
// embedded service with its simulated device running in the background. This file is the
// library `korvalin_embedded`; a program linking it is linked with --undefined naming
// korvalin_embedded_default_backend, so this file, and with it the registration, is always
// taken out of the archive although nothing calls into it.
#include <cstdlib>
#include <memory>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/http_backend.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/executor.hpp"

namespace korvalin_client::service {
namespace {

class RunningService final : public EmbeddedBackend {
 public:
  explicit RunningService(const std::shared_ptr<Engine>& engine)
      : EmbeddedBackend(engine), executor_(engine) {
    executor_.start();
  }
  ~RunningService() override { executor_.stop(); }

 private:
  Executor executor_;
};

std::shared_ptr<com::Backend> make_default_backend() {
  const char* url = std::getenv("KORVALIN_SERVICE_URL");
  if (url != nullptr && *url != '\0') {
    const char* token = std::getenv("KORVALIN_TOKEN");
    return std::make_shared<com::HttpBackend>(url, token != nullptr ? token : "");
  }
  return std::make_shared<RunningService>(std::make_shared<Engine>());
}

const bool registered = [] {
  com::connection_manager::set_default_backend_factory(make_default_backend);
  return true;
}();

}  // namespace
}  // namespace korvalin_client::service

// The symbol the link names (CMakeLists.txt, korvalin_embedded.pc): its presence pulls this
// file in. Nothing calls it; it answers whether the registration ran.
extern "C" bool korvalin_embedded_default_backend() {
  return korvalin_client::service::registered;
}
