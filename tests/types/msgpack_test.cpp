#include "korvalin_client/utils/decode_msgpack.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>

using korvalin_client::Bytes;
using korvalin_client::Value;
using korvalin_client::utils::msgpack_dumps;
using korvalin_client::utils::msgpack_loads;

// Records the largest single allocation, to show that a length prefix is not taken at its
// word. Every form goes to malloc/free so that they stay paired, also under AddressSanitizer.
namespace {
std::atomic<std::size_t> g_largest{0};
void* counted(std::size_t n) {
  for (std::size_t seen = g_largest; n > seen && !g_largest.compare_exchange_weak(seen, n);) {
  }
  return std::malloc(n ? n : 1);
}
// Out of line, or GCC pairs a visible new-expression with free() and warns.
[[gnu::noinline]] void release(void* p) noexcept { std::free(p); }
}  // namespace
void* operator new(std::size_t n) {
  if (void* p = counted(n)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t n) { return operator new(n); }
void* operator new(std::size_t n, const std::nothrow_t&) noexcept { return counted(n); }
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept { return counted(n); }
void operator delete(void* p) noexcept { release(p); }
void operator delete[](void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }
void operator delete[](void* p, std::size_t) noexcept { release(p); }

namespace {

std::string load_error(const Bytes& data) {
  try {
    msgpack_loads(data);
  } catch (const korvalin_client::ValueError& e) {
    return e.what();
  }
  return "(no error)";
}

TEST(Msgpack, RoundTripsEveryKind) {
  const Value v = {
      {"z", nullptr},
      {"ints", {0, 128, -33, std::numeric_limits<std::int64_t>::min(),
                std::numeric_limits<std::uint64_t>::max()}},
      {"misc", {true, 1.5, -1e300, "grüße, 世界 🎉"}},
      {"bytes", {Value::binary({0x00, 0xff}), Value::binary({1, 2}, 7)}},
      {"nested", {{"y", Value::array()}, {"a", Value::object()}}},
  };
  const Value back = msgpack_loads(msgpack_dumps(v));
  EXPECT_EQ(back.dump(), v.dump());  // also checks key order
  EXPECT_EQ(back["bytes"][1].get_binary().subtype(), 7);
  // {"b": 1, "a": 2, "b": 3}: a repeated key keeps its place and takes the last value.
  EXPECT_EQ(msgpack_loads(Bytes{0x83, 0xa1, 'b', 1, 0xa1, 'a', 2, 0xa1, 'b', 3}).dump(),
            R"({"b":3,"a":2})");
}

TEST(Msgpack, RefusesMalformedInput) {
  // Nothing, unused byte, short list, short text, trailing byte, integer key, missing value.
  for (const Bytes& b : {Bytes{}, Bytes{0xc1}, Bytes{0x92, 1}, Bytes{0xa5, 'a'}, Bytes{1, 2},
                         Bytes{0x81, 1, 2}, Bytes{0x81, 0xa1, 'k'}}) {
    EXPECT_EQ(load_error(b).rfind("malformed MessagePack data: ", 0), 0u) << load_error(b);
  }
}

TEST(Msgpack, LimitsNesting) {
  Bytes deep(512, 0x91);
  deep.push_back(0xc0);
  EXPECT_NO_THROW(msgpack_loads(deep));
  deep.insert(deep.begin(), 0x91);
  EXPECT_NE(load_error(deep).find("deeper than 512"), std::string::npos);
  EXPECT_NE(load_error(Bytes(100000, 0x91)).find("deeper than 512"), std::string::npos);
}

TEST(Msgpack, HostileLengthPrefixesFailWithoutLargeAllocations) {
  for (std::uint8_t head : {0xdb, 0xc6, 0xdd, 0xdf, 0xc9}) {  // str, bin, list, map, ext 32
    Bytes data{head, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    g_largest = 0;
    const std::string error = load_error(data);
    EXPECT_LT(g_largest.load(), 4096u) << int(head);
    EXPECT_EQ(error.rfind("malformed MessagePack data: ", 0), 0u) << error;
  }
}

}  // namespace
