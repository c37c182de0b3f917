// Registers the embedded service, with its simulated device running in the background, as the
// backend installed on first use when a program installs none. Linked into programs through
// the `korvalin_embedded` CMake target.
#include <memory>

#include "korvalin_client/com/connection_manager.hpp"
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

const bool registered = [] {
  com::connection_manager::set_default_backend_factory(
      [] { return std::make_shared<RunningService>(std::make_shared<Engine>()); });
  return true;
}();

}  // namespace
}  // namespace korvalin_client::service
