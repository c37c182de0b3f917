// compress_image_to_128 on any bytes held in memory: it either refuses them with one of the
// library's errors or returns a reduced copy that it reads again, in the same format. The
// name ends in ".tga", so bytes without another format's signature are read as TGA (the one
// format without a signature).
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_check.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/images.hpp"

namespace kc = korvalin_client;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::pair<kc::Bytes, std::string> copy;
  try {
    copy = kc::utils::compress_image_to_128({data, size}, "fuzz.tga");
  } catch (const kc::Error&) {
    return 0;
  }
  fuzz_check(!copy.first.empty(), "an empty copy");
  // The copy is itself an image this function reads, of the same size.
  const auto again = kc::utils::compress_image_to_128(copy.first, "copy." + copy.second);
  fuzz_check(again.second == copy.second, "the copy's format changed");
  return 0;
}
