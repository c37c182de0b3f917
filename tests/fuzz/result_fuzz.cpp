// Result::from_bytes on any bytes: it either refuses them with one of the library's errors or
// gives a result that is written and read back to the same bytes, and that joins into an
// empty accumulator unchanged.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.hpp"
#include "korvalin_client/experiment/result.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace kc = korvalin_client;
using kc::experiment::Result;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Result result;
  try {
    result = Result::from_bytes({data, size}, "fuzz input");
  } catch (const kc::Error&) {
    return 0;
  }
  const kc::Bytes stored = result.to_bytes();
  fuzz_check(Result::from_bytes(stored).to_bytes() == stored, "from_bytes(to_bytes(r)) differs");
  fuzz_check(result.item_ids().size() == result.size(), "item_ids() and size() disagree");
  for (const auto& [name, column] : result.data()) {
    fuzz_check(column.size() == result.size(), "a column's size differs from the result's");
    if (!column.empty()) column.value(column.size() - 1);
  }

  Result joined(false, false);
  joined.concatenate(result);
  fuzz_check(joined.to_bytes() == stored, "joining into an empty result changed it");
  try {
    joined.concatenate(result);  // the same ids again: refused, and nothing changed
  } catch (const kc::Error&) {
  }
  fuzz_check(result.empty() || joined.to_bytes() == stored, "a refused join changed the result");
  return 0;
}
