// The service functions: each forwards its arguments, in the catalogue's order, to the
// installed backend's call(). Their typed declarations, with their documentation and
// defaults, are in the module headers (device.hpp, space.hpp, ...).
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/device.hpp"
#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/com/operations.hpp"
#include "korvalin_client/com/oss.hpp"
#include "korvalin_client/com/space.hpp"
#include "korvalin_client/com/sub_process.hpp"
#include "korvalin_client/com/user.hpp"

namespace korvalin_client::com {

std::optional<Operation> find_operation(std::string_view module, std::string_view name) {
  for (const auto& op : kOperations)
    if (op.module == module && op.name == name) return op.operation;
  return std::nullopt;
}

// The backend is held for the length of the call, so uninstalling it meanwhile is safe.
#define KORVALIN_X(module_, name, positional, ...)                                          \
  namespace module_ {                                                                       \
  Value name(KORVALIN_OPERATION_PARAMS(__VA_ARGS__)) {                                      \
    const Value* const arguments_[] = {KORVALIN_PP_MAP(KORVALIN_PP_ADDRESS, __VA_ARGS__)}; \
    static_assert(std::size(arguments_) == info(Operation::name).arguments.size());          \
    const std::shared_ptr<Backend> backend = connection_manager::get_backend();             \
    return backend->call(Operation::name, Args(arguments_));                                 \
  }                                                                                         \
  }
KORVALIN_OPERATIONS(KORVALIN_X)
#undef KORVALIN_X

namespace minio {

std::shared_ptr<MinIOAPI> get_minio_client(const Value& organization_id) {
  return connection_manager::get_backend()->get_minio_client(organization_id);
}

}  // namespace minio

}  // namespace korvalin_client::com
