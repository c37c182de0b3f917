#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <new>
#include <string>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "support/temp_dir.hpp"

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

// A list of n items, each the given bytes.
Bytes list_of(std::size_t n, const Bytes& item) {
  Bytes b{0xdd, std::uint8_t(n >> 24), std::uint8_t(n >> 16), std::uint8_t(n >> 8),
          std::uint8_t(n)};
  for (std::size_t i = 0; i < n; ++i) b.insert(b.end(), item.begin(), item.end());
  return b;
}

TEST(Msgpack, RoundTripsAndWritesWhatOtherClientsWrite) {
  const Value v = {
      {"z", nullptr},
      {"ints",
       {0, 128, -33, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::uint64_t>::max()}},
      {"misc", {true, 0.5, -1e300, "grüße, 世界 🎉"}},
      {"bytes", {Value::binary({0x00, 0xff}), Value::binary({1, 2}, 7)}},
      {"nested", {{"y", Value::array()}, {"a", Value::object()}}},
  };
  const Bytes data = msgpack_dumps(v);
  const Value back = msgpack_loads(data);
  EXPECT_EQ(back.dump(), v.dump());  // also checks key order
  // {"b": 1, "a": 2, "b": 3}: a repeated key keeps its place and takes the last value, also
  // past the length where the decoder indexes the keys.
  EXPECT_EQ(msgpack_loads(Bytes{0x83, 0xa1, 'b', 1, 0xa1, 'a', 2, 0xa1, 'b', 3}).dump(),
            R"({"b":3,"a":2})");
  Value many = Value::object();
  for (int i = 0; i < 40; ++i) many["k" + std::to_string(i % 20)] = i;
  EXPECT_EQ(msgpack_loads(msgpack_dumps(many)), many);

  // Reals are float64 even where a float32 holds them exactly; everything else takes the
  // smallest form at every boundary, as nlohmann writes it.
  EXPECT_EQ(msgpack_dumps(Value::array({1.0})), (Bytes{0x91, 0xcb, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0}));
  Value edges = Value::array();
  for (int bits : {5, 7, 8, 15, 16, 31, 32}) {
    for (std::int64_t i : {(1LL << bits) - 1, 1LL << bits, (1LL << bits) + 1}) {
      edges.push_back(i);
      edges.push_back(-i);
      edges.push_back(static_cast<std::uint64_t>(i));
    }
  }
  for (std::size_t n : {1, 2, 4, 8, 15, 16, 31, 32, 255, 256, 65535, 65536}) {
    edges.push_back(std::string(n, 'x'));
    edges.push_back(Value(std::vector<int>(n, 1)));
    edges.push_back(Value::binary(Bytes(n, 0xab)));
    edges.push_back(Value::binary(Bytes(n, 0xab), 200));
    Value map = Value::object();
    auto& members = map.get_ref<Value::object_t&>();
    for (std::size_t i = 0; i < n; ++i) members.emplace_back("k" + std::to_string(i), false);
    edges.push_back(map);
  }
  EXPECT_EQ(msgpack_dumps(edges), Value::to_msgpack(edges));

  // Another client's decoder reads the same values.
  korvalin_client::testing::TempCacheRoot root;
  const std::string dir = root.path();
  std::ofstream(dir + "/v.msgpack", std::ios::binary)
      .write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
  std::ofstream(dir + "/check.py") << R"(import msgpack, sys
v = msgpack.unpackb(open(sys.argv[1], "rb").read())
want = {"z": None, "ints": [0, 128, -33, -2**63, 2**64 - 1],
        "misc": [True, 0.5, -1e300, "gr\u00fc\u00dfe, \u4e16\u754c \U0001f389"],
        "bytes": [b"\x00\xff", msgpack.ExtType(7, b"\x01\x02")], "nested": {"y": [], "a": {}}}
sys.exit(0 if v == want and list(v) == list(want) else print(v) or 1)
)";
  EXPECT_EQ(std::system(("/usr/bin/python3 " + dir + "/check.py " + dir + "/v.msgpack").c_str()),
            0);
}

TEST(Msgpack, RefusesMalformedAndDeepInputAndBoundsMemoryByTheInput) {
  // Nothing, unused byte, short list, short text, trailing byte, integer key, missing value.
  for (const Bytes& b : {Bytes{}, Bytes{0xc1}, Bytes{0x92, 1}, Bytes{0xa5, 'a'}, Bytes{1, 2},
                         Bytes{0x81, 1, 2}, Bytes{0x81, 0xa1, 'k'}}) {
    EXPECT_EQ(load_error(b).rfind("malformed MessagePack data: ", 0), 0u) << load_error(b);
  }
  // 512 nested lists are read and written; one more is refused both ways.
  Bytes deep(512, 0x91);
  deep.push_back(0xc0);
  Value nested = msgpack_loads(deep);
  EXPECT_EQ(msgpack_dumps(nested), deep);
  nested = Value::array({std::move(nested)});
  EXPECT_THROW(msgpack_dumps(nested), korvalin_client::ValueError);
  deep.insert(deep.begin(), 0x91);
  EXPECT_NE(load_error(deep).find("deeper than 512"), std::string::npos);
  EXPECT_NE(load_error(Bytes(100000, 0x91)).find("deeper than 512"), std::string::npos);

  // JSON is read by the same builder: key order kept, a repeated key takes its last value in
  // its first place, the same depth bound, errors that say JSON.
  using korvalin_client::utils::json_loads;
  EXPECT_EQ(json_loads(R"({"b": 1, "a": [2, {"c": null}], "b": 3})").dump(),
            R"({"b":3,"a":[2,{"c":null}]})");
  for (const char* bad : {"", "{", "[1,]", "{\"a\" 1}", "1 2", "[\"\xff\"]"}) {
    try {
      json_loads(bad);
      ADD_FAILURE() << bad;
    } catch (const korvalin_client::ValueError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("malformed JSON data: ", 0), 0u) << e.what();
    }
  }
  EXPECT_EQ(json_loads(std::string(512, '[') + std::string(512, ']')).dump().size(), 1024u);
  EXPECT_THROW(json_loads(std::string(100000, '[')), korvalin_client::ValueError);

  // Length prefixes are not taken at their word.
  for (std::uint8_t head : {0xdb, 0xc6, 0xdd, 0xdf, 0xc9}) {  // str, bin, list, map, ext 32
    Bytes data{head, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    g_largest = 0;
    const std::string error = load_error(data);
    EXPECT_LT(g_largest.load(), 4096u) << int(head);
    EXPECT_EQ(error.rfind("malformed MessagePack data: ", 0), 0u) << error;
  }
  // 512 KiB of one-byte empty lists, maps or texts would take 48 to 64 bytes of memory each.
  constexpr std::size_t n = std::size_t{1} << 19;
  for (std::uint8_t empty : {0x90, 0x80, 0xa0}) {
    EXPECT_NE(load_error(list_of(n, {empty})).find("decodes to too large a value"),
              std::string::npos)
        << int(empty);
  }
  // Ordinary data of the same size decodes: small integers, float64, short records and texts.
  EXPECT_EQ(msgpack_loads(list_of(n, {7})).size(), n);
  EXPECT_EQ(msgpack_loads(list_of(n / 9, {0xcb, 0x3f, 0xe0, 0, 0, 0, 0, 0, 0})).size(), n / 9);
  EXPECT_EQ(msgpack_loads(list_of(n / 7, {0x82, 0xa1, 'i', 1, 0xa1, 'q', 2})).size(), n / 7);
  EXPECT_EQ(msgpack_loads(list_of(n / 3, {0x92, 1, 2})).size(), n / 3);
  EXPECT_EQ(msgpack_loads(list_of(n / 2, {0xa1, 'a'})).size(), n / 2);
}

}  // namespace
