// MessagePack encoding of Values.
//
// Every real number is written as a float64 (0xcb), never as a float32, even where a float32
// would hold it exactly: that is what other clients' default encoders write, so an experiment
// copy made here is byte for byte the copy they make. Everything else takes its smallest form:
// integers, and the lengths of text, lists, mappings and binaries. A binary with a subtype is
// an ext whose type is the subtype's low byte (msgpack_loads reads it back so), one without is
// a bin.
#include <bit>
#include <cstdint>
#include <limits>
#include <string>

#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::utils {
namespace {

// The same limit msgpack_loads applies, so that whatever is written can be read back.
constexpr std::size_t kMaxDepth = 512;

class Encoder {
 public:
  Bytes take() { return std::move(out_); }

  void value(const Value& v, std::size_t depth) {
    switch (v.type()) {
      case Value::value_t::null:
        byte(0xc0);
        return;
      case Value::value_t::boolean:
        byte(v.get<bool>() ? 0xc3 : 0xc2);
        return;
      case Value::value_t::number_integer: {
        const auto i = v.get<std::int64_t>();
        if (i >= 0) {
          unsigned_int(static_cast<std::uint64_t>(i));
        } else {
          signed_int(i);
        }
        return;
      }
      case Value::value_t::number_unsigned:
        unsigned_int(v.get<std::uint64_t>());
        return;
      case Value::value_t::number_float:
        byte(0xcb);
        big_endian(std::bit_cast<std::uint64_t>(v.get<double>()), 8);
        return;
      case Value::value_t::string: {
        const auto& s = v.get_ref<const Value::string_t&>();
        length(s.size(), 0xa0, 31, 0xd9, "text");
        out_.insert(out_.end(), s.begin(), s.end());
        return;
      }
      case Value::value_t::binary:
        binary(v.get_binary());
        return;
      case Value::value_t::array: {
        enter(depth);
        const auto& items = v.get_ref<const Value::array_t&>();
        length(items.size(), 0x90, 15, 0, "list");
        for (const Value& item : items) value(item, depth + 1);
        return;
      }
      case Value::value_t::object: {
        enter(depth);
        const auto& members = v.get_ref<const Value::object_t&>();
        length(members.size(), 0x80, 15, 0, "mapping");
        for (const auto& [key, member] : members) {
          length(key.size(), 0xa0, 31, 0xd9, "text");
          out_.insert(out_.end(), key.begin(), key.end());
          value(member, depth + 1);
        }
        return;
      }
      case Value::value_t::discarded:
        break;
    }
    throw ValueError("cannot encode a discarded value as MessagePack");
  }

 private:
  void byte(std::uint8_t b) { out_.push_back(b); }

  void big_endian(std::uint64_t v, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) {
      byte(static_cast<std::uint8_t>(v >> shift));
    }
  }

  void unsigned_int(std::uint64_t u) {
    if (u < 128) {
      byte(static_cast<std::uint8_t>(u));
    } else if (u <= std::numeric_limits<std::uint8_t>::max()) {
      byte(0xcc);
      big_endian(u, 1);
    } else if (u <= std::numeric_limits<std::uint16_t>::max()) {
      byte(0xcd);
      big_endian(u, 2);
    } else if (u <= std::numeric_limits<std::uint32_t>::max()) {
      byte(0xce);
      big_endian(u, 4);
    } else {
      byte(0xcf);
      big_endian(u, 8);
    }
  }

  void signed_int(std::int64_t i) {
    const auto bits = static_cast<std::uint64_t>(i);
    if (i >= -32) {
      byte(static_cast<std::uint8_t>(bits));
    } else if (i >= std::numeric_limits<std::int8_t>::min()) {
      byte(0xd0);
      big_endian(bits, 1);
    } else if (i >= std::numeric_limits<std::int16_t>::min()) {
      byte(0xd1);
      big_endian(bits, 2);
    } else if (i >= std::numeric_limits<std::int32_t>::min()) {
      byte(0xd2);
      big_endian(bits, 4);
    } else {
      byte(0xd3);
      big_endian(bits, 8);
    }
  }

  // A length in its smallest form: in the head byte `fixed | n` while n <= fixed_max, else
  // after the head `head8` (text only), `head8 + 1` or `head8 + 2` with 1, 2 or 4 bytes. Lists
  // and mappings have no 1-byte form: their 2- and 4-byte heads are 0xdc/0xdd and 0xde/0xdf.
  void length(std::size_t n, std::uint8_t fixed, std::size_t fixed_max, std::uint8_t head8,
              const char* what) {
    if (n <= fixed_max) {
      byte(static_cast<std::uint8_t>(fixed | n));
      return;
    }
    const auto head16 =
        static_cast<std::uint8_t>(head8 != 0 ? head8 + 1 : (fixed == 0x90 ? 0xdc : 0xde));
    if (head8 != 0 && n <= std::numeric_limits<std::uint8_t>::max()) {
      byte(head8);
      big_endian(n, 1);
    } else if (n <= std::numeric_limits<std::uint16_t>::max()) {
      byte(head16);
      big_endian(n, 2);
    } else if (n <= std::numeric_limits<std::uint32_t>::max()) {
      byte(static_cast<std::uint8_t>(head16 + 1));
      big_endian(n, 4);
    } else {
      throw ValueError(std::string("a ") + what + " is too long for MessagePack (" +
                       std::to_string(n) + " items or bytes; at most 2^32 - 1)");
    }
  }

  void binary(const Value::binary_t& b) {
    const std::size_t n = b.size();
    const bool ext = b.has_subtype();
    if (n > std::numeric_limits<std::uint32_t>::max()) {
      throw ValueError("a binary is too long for MessagePack (" + std::to_string(n) +
                       " bytes; at most 2^32 - 1)");
    }
    if (n <= std::numeric_limits<std::uint8_t>::max()) {
      // fixext 1, 2, 4, 8 and 16 carry their length in the head.
      const std::uint8_t fixext = !ext      ? 0
                                  : n == 1  ? 0xd4
                                  : n == 2  ? 0xd5
                                  : n == 4  ? 0xd6
                                  : n == 8  ? 0xd7
                                  : n == 16 ? 0xd8
                                            : 0;
      if (fixext != 0) {
        byte(fixext);
      } else {
        byte(ext ? 0xc7 : 0xc4);
        big_endian(n, 1);
      }
    } else if (n <= std::numeric_limits<std::uint16_t>::max()) {
      byte(ext ? 0xc8 : 0xc5);
      big_endian(n, 2);
    } else {
      byte(ext ? 0xc9 : 0xc6);
      big_endian(n, 4);
    }
    if (ext) byte(static_cast<std::uint8_t>(b.subtype()));
    out_.insert(out_.end(), b.begin(), b.end());
  }

  static void enter(std::size_t depth) {
    if (depth >= kMaxDepth) {
      throw ValueError("cannot encode as MessagePack: lists and mappings nest deeper than " +
                       std::to_string(kMaxDepth) + " levels");
    }
  }

  Bytes out_;
};

}  // namespace

Bytes msgpack_dumps(const Value& value) {
  Encoder encoder;
  encoder.value(value, 0);
  return encoder.take();
}

}  // namespace korvalin_client::utils
