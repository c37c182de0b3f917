// msgpack_loads on any bytes: it either refuses them with a ValueError or returns a value that
// msgpack_dumps writes and msgpack_loads reads back to the same bytes.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace kc = korvalin_client;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kc::Value value;
  try {
    value = kc::utils::msgpack_loads({data, size});
  } catch (const kc::ValueError&) {
    return 0;
  }
  const kc::Bytes once = kc::utils::msgpack_dumps(value);
  const kc::Bytes twice = kc::utils::msgpack_dumps(kc::utils::msgpack_loads(once));
  fuzz_check(once == twice, "msgpack_dumps(msgpack_loads(msgpack_dumps(v))) differs");
  return 0;
}
