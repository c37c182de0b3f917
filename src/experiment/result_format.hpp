// The ".kvres" file format, shared by its encoder (result_encode.cpp) and decoder
// (result_decode.cpp): constants, little-endian words, checked arithmetic.
#pragma once

#include <array>
#include <bit>
#include <complex>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "korvalin_client/experiment/result.hpp"

namespace korvalin_client::experiment::kvres {

using Complex = std::complex<double>;
using Segments = std::vector<std::pair<std::int64_t, std::int64_t>>;

inline std::string in_quotes(std::string_view s) { return "\"" + std::string(s) + "\""; }

// The ".kvres" format (docs/result-format.md): a 20-byte preamble (magic, u32 version, u64
// header length), a MessagePack header, then the data area aligned to 8 bytes: the segment
// table and one blob per column, each at an 8-byte aligned offset, little-endian throughout.


inline constexpr std::array<std::uint8_t, 8> kMagic{0x89, 'K', 'V', 'R', 'E', 'S', '\r', '\n'};
inline constexpr std::uint32_t kVersion = 1;
inline constexpr std::size_t kPreambleBytes = 20;
// Headers are small (one entry per column); the limit bounds what a hostile file can make the
// parser do. save_to_file refuses to write a larger one.
inline constexpr std::uint64_t kMaxHeaderBytes = std::uint64_t{64} << 20;
// Containers in the header nest three deep; the parser recurses once per level.
inline constexpr std::size_t kMaxHeaderDepth = 16;
inline constexpr bool kLittleEndian = std::endian::native == std::endian::little;

inline std::uint64_t align8(std::uint64_t n) { return (n + 7) & ~std::uint64_t{7}; }

inline bool add_overflows(std::uint64_t a, std::uint64_t b, std::uint64_t& out) {
  return __builtin_add_overflow(a, b, &out);
}

inline bool mul_overflows(std::uint64_t a, std::uint64_t b, std::uint64_t& out) {
  return __builtin_mul_overflow(a, b, &out);
}

// Bytes per item of a fixed-width dtype (0 for text).
inline std::uint64_t item_width(DType d) {
  switch (d) {
    case DType::Int64:
    case DType::Float64:
      return 8;
    case DType::Complex128:
      return 16;
    case DType::Text:
      return 0;
  }
  return 0;
}

inline std::optional<DType> parse_dtype(std::string_view s) {
  for (DType d : {DType::Int64, DType::Float64, DType::Complex128, DType::Text}) {
    if (s == dtype_name(d)) return d;
  }
  return std::nullopt;
}

inline std::uint64_t to_le64(std::uint64_t v) { return kLittleEndian ? v : __builtin_bswap64(v); }
inline std::uint32_t to_le32(std::uint32_t v) { return kLittleEndian ? v : __builtin_bswap32(v); }

inline std::uint64_t load_le64(const std::uint8_t* p) {
  std::uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return to_le64(v);
}

inline std::uint32_t load_le32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return to_le32(v);
}

// Turns little-endian 8-byte words read from a file into native ones, in place.
inline void words_from_le(void* data, std::size_t bytes) {
  if constexpr (!kLittleEndian) {
    auto* p = static_cast<std::uint8_t*>(data);
    for (std::size_t i = 0; i + 8 <= bytes; i += 8) {
      std::uint64_t w;
      std::memcpy(&w, p + i, 8);
      w = __builtin_bswap64(w);
      std::memcpy(p + i, &w, 8);
    }
  } else {
    (void)data;
    (void)bytes;
  }
}

}  // namespace korvalin_client::experiment::kvres
