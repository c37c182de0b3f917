// The service's body decoders on any bytes, read as MessagePack and as JSON: each either
// refuses them with a ValueError or returns a value that msgpack_dumps writes and msgpack_loads
// reads back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz_check.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace kc = korvalin_client;

namespace {

template <class Decode>
void check_round_trip(Decode decode) {
  kc::Value value;
  try {
    value = decode();
  } catch (const kc::ValueError&) {
    return;
  }
  const kc::Bytes once = kc::utils::msgpack_dumps(value);
  const kc::Bytes twice = kc::utils::msgpack_dumps(kc::utils::msgpack_loads(once));
  fuzz_check(once == twice, "msgpack_dumps(msgpack_loads(msgpack_dumps(v))) differs");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  check_round_trip([&] { return kc::utils::msgpack_loads({data, size}); });
  check_round_trip([&] {
    return kc::utils::json_loads(std::string_view(reinterpret_cast<const char*>(data), size));
  });
  return 0;
}
