// The engine's dispatch: from a catalogue entry to the method of the same name.
#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {

Value Engine::call(com::Operation op, const com::Args& args) { return call(local_, op, args); }

Value Engine::dispatch(com::Operation op, const com::Args& args) {
  switch (op) {
#define KORVALIN_X(module, name, positional, ...) \
  case com::Operation::name:                      \
    return com::invoke(*this, &Engine::name, args);
    KORVALIN_OPERATIONS(KORVALIN_X)
#undef KORVALIN_X
  }
  throw ValueError("unknown operation " + std::to_string(static_cast<int>(op)));
}

}  // namespace korvalin_client::service
