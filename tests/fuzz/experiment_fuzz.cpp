// An experiment's stored form from any MessagePack: deserialize either refuses it with one of
// the library's errors or gives an experiment whose stored form reads back to the same one.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.hpp"
#include "korvalin_client/experiment/experiment.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace kc = korvalin_client;
using kc::experiment::Experiment;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Experiment exp;
  try {
    exp = Experiment::deserialize(kc::utils::msgpack_loads({data, size}));
  } catch (const kc::Error&) {
    return 0;
  }
  try {
    exp.item_count();
    exp.valid();
  } catch (const kc::Error&) {
  }
  // Compared as bytes: a NaN parameter is not equal to itself.
  const kc::Bytes stored = kc::utils::msgpack_dumps(exp.serialize());
  const Experiment back = Experiment::deserialize(kc::utils::msgpack_loads(stored));
  fuzz_check(kc::utils::msgpack_dumps(back.serialize()) == stored,
             "deserialize(serialize(e)) differs from e");
  return 0;
}
