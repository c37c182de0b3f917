#include "korvalin_client/utils/decode_msgpack.hpp"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::utils {
namespace {

// The deepest nesting of lists and mappings accepted. nlohmann's reader descends one call
// per level, so refusing the next level in start_array / start_object is what keeps a long
// run of nested-container headers from exhausting the stack.
constexpr std::size_t kMaxDepth = 512;

// The memory a decoded value may take: kBytesPerInputByte for each byte of input, plus
// kBaseBudget. What the ordinary shapes take per input byte: a list of float64 about 2, of
// small integers 16, records of small integers under single-letter keys about 21, lists of
// pairs of small integers about 27, one-letter texts 32. What is refused is what costs more
// than 32 bytes per input byte: long runs of one-byte items that each own a heap block (empty
// lists, mappings and texts: 48 to 64 bytes each), which is how a few megabytes of input
// would otherwise make gigabytes of Value. kBaseBudget lets any small input through.
constexpr std::size_t kBytesPerInputByte = 32;
constexpr std::size_t kBaseBudget = std::size_t{1} << 20;

// A mapping is searched for a repeated key by a scan until it has this many members; from
// then on through an index, so that a long mapping is still built in linear time.
constexpr std::size_t kIndexFrom = 16;

// What malloc takes for a block of n bytes on a 64-bit glibc system: n and an 8-byte header,
// in steps of 16, at least 32.
constexpr std::size_t heap_block(std::size_t n) {
  return std::max<std::size_t>(32, (n + 8 + 15) / 16 * 16);
}

// The heap block of a text, if it is longer than what fits inside std::string itself.
std::size_t text_heap(const std::string& s) {
  return s.capacity() > 15 ? heap_block(s.capacity() + 1) : 0;
}

// Builds a Value from nlohmann's SAX events. Every open list or mapping is a frame of its
// own; a finished value is moved into the frame below it.
//
// Memory is accounted as the value is built, from the sizes nlohmann's ordered_json really
// allocates (a 16-byte Value per item; a heap block for each list, mapping, text and binary;
// a 48-byte slot per mapping member; the builder's index of a long open mapping while it is
// open), and the decoding is refused once the account exceeds the budget. A list or mapping
// reserves room for the items its header announces, but never more than the input could
// hold (an item takes at least one byte, a member two) nor more than the budget has left, so
// a lying length prefix costs nothing beyond its charge.
class ValueBuilder {
 public:
  using number_integer_t = Value::number_integer_t;
  using number_unsigned_t = Value::number_unsigned_t;
  using number_float_t = Value::number_float_t;
  using string_t = Value::string_t;
  using binary_t = Value::binary_t;

  // `format` names the input in errors ("MessagePack", "JSON").
  ValueBuilder(std::size_t input_size, const char* format)
      : format_(format),
        input_size_(input_size),
        budget_(input_size >
                        (std::numeric_limits<std::size_t>::max() - kBaseBudget) / kBytesPerInputByte
                    ? std::numeric_limits<std::size_t>::max()
                    : input_size * kBytesPerInputByte + kBaseBudget) {}

  bool null() { return put(Value(nullptr)); }
  bool boolean(bool v) { return put(Value(v)); }
  bool number_integer(number_integer_t v) { return put(Value(v)); }
  bool number_unsigned(number_unsigned_t v) { return put(Value(v)); }
  bool number_float(number_float_t v, const string_t& /*text*/) { return put(Value(v)); }
  bool string(string_t& v) {
    return charge(heap_block(sizeof(string_t)) + text_heap(v)) && put(Value(std::move(v)));
  }
  bool binary(binary_t& v) {
    if (!charge(heap_block(sizeof(binary_t)) + (v.capacity() ? heap_block(v.capacity()) : 0))) {
      return false;
    }
    // Value::binary(binary_t&&) would bind to the bare byte vector and lose an ext type.
    const bool ext = v.has_subtype();
    const auto subtype = v.subtype();
    auto& bytes = static_cast<binary_t::container_type&>(v);
    return put(ext ? Value::binary(std::move(bytes), subtype) : Value::binary(std::move(bytes)));
  }

  // JSON announces no sizes (nlohmann passes -1): nothing is reserved ahead then.
  bool start_object(std::size_t claimed_size) {
    if (claimed_size == kUnknownSize) claimed_size = 0;
    Value object = Value::object();
    auto& members = object.get_ref<Value::object_t&>();
    members.reserve(reservation(claimed_size, input_size_ / 2, sizeof(Member)));
    return charge(heap_block(sizeof(Value::object_t)) + members.capacity() * sizeof(Member)) &&
           open(std::move(object));
  }
  bool start_array(std::size_t claimed_size) {
    if (claimed_size == kUnknownSize) claimed_size = 0;
    Value array = Value::array();
    auto& items = array.get_ref<Value::array_t&>();
    items.reserve(reservation(claimed_size, input_size_, sizeof(Value)));
    return charge(heap_block(sizeof(Value::array_t)) + items.capacity() * sizeof(Value)) &&
           open(std::move(array));
  }

  bool key(string_t& k) {
    stack_.back().key = std::move(k);
    return true;
  }

  bool end_object() { return close(); }
  bool end_array() { return close(); }

  bool parse_error(std::size_t /*position*/, const std::string& /*last_token*/,
                   const Value::exception& e) {
    std::string_view what = e.what();
    // Drop nlohmann's "[json.exception.parse_error.110] " tag; the rest reads well alone.
    if (!what.empty() && what.front() == '[') {
      const auto end = what.find("] ");
      if (end != std::string_view::npos) what.remove_prefix(end + 2);
    }
    error_ = std::string("malformed ") + format_ + " data: " + std::string(what);
    return false;
  }

  const std::string& error() const { return error_; }
  Value take_result() { return std::move(result_); }

 private:
  using Member = Value::object_t::value_type;

  struct Frame {
    Value value;
    // Mappings only: the key of the member being read, and, once the mapping is long, where
    // each key already sits (a repeated key keeps its first place and takes the last value).
    std::string key;
    std::unordered_map<std::string, std::size_t> index;
    std::size_t index_charge = 0;
  };

  // Memory an index entry takes: its node (link, key, position, cached hash) and its bucket.
  static std::size_t index_entry(const std::string& key) {
    return heap_block(sizeof(void*) + sizeof(std::pair<const std::string, std::size_t>) +
                      sizeof(std::size_t)) +
           sizeof(void*) + text_heap(key);
  }

  std::size_t reservation(std::size_t claimed, std::size_t input_could_hold,
                          std::size_t item_size) const {
    return std::min({claimed, input_could_hold, (budget_ - used_) / item_size});
  }

  bool charge(std::size_t bytes) {
    if (bytes <= budget_ - used_) {
      used_ += bytes;
      return true;
    }
    error_ = std::string(format_) + " data decodes to too large a value: it would take more than " +
             std::to_string(budget_) + " bytes of memory for " + std::to_string(input_size_) +
             " bytes of input (at most " + std::to_string(kBytesPerInputByte) +
             " per byte, plus 1 MiB)";
    return false;
  }

  bool open(Value container) {
    if (stack_.size() >= kMaxDepth) {
      error_ = std::string("malformed ") + format_ + " data: nested deeper than " +
               std::to_string(kMaxDepth) + " levels";
      return false;
    }
    stack_.push_back(Frame{std::move(container), {}, {}, 0});
    return true;
  }

  bool close() {
    used_ -= stack_.back().index_charge;
    Value done = std::move(stack_.back().value);
    stack_.pop_back();
    return put(std::move(done));
  }

  bool put(Value v) {
    if (stack_.empty()) {
      result_ = std::move(v);
      return true;
    }
    Frame& top = stack_.back();
    if (top.value.is_array()) {
      auto& items = top.value.get_ref<Value::array_t&>();
      const std::size_t capacity = items.capacity();
      items.push_back(std::move(v));
      return charge((items.capacity() - capacity) * sizeof(Value));
    }
    auto& members = top.value.get_ref<Value::object_t&>();
    const auto at = [&](std::size_t i) { return members.begin() + static_cast<std::ptrdiff_t>(i); };
    if (members.size() >= kIndexFrom && top.index.empty()) {
      for (std::size_t i = 0; i < members.size(); ++i) {
        const std::size_t cost = index_entry(at(i)->first);
        if (!charge(cost)) return false;
        top.index_charge += cost;
        top.index.emplace(at(i)->first, i);
      }
    }
    std::size_t slot = members.size();
    if (top.index.empty()) {
      for (std::size_t i = 0; i < members.size() && slot == members.size(); ++i) {
        if (at(i)->first == top.key) slot = i;
      }
    } else if (const auto found = top.index.find(top.key); found != top.index.end()) {
      slot = found->second;
    } else {
      const std::size_t cost = index_entry(top.key);
      if (!charge(cost)) return false;
      top.index_charge += cost;
      top.index.emplace(top.key, slot);
    }
    if (slot < members.size()) {
      at(slot)->second = std::move(v);  // ordered_map's operator[] takes a key; go by position
      return true;
    }
    const std::size_t capacity = members.capacity();
    const std::size_t key_heap = text_heap(top.key);
    members.emplace_back(std::move(top.key), std::move(v));
    return charge((members.capacity() - capacity) * sizeof(Member) + key_heap);
  }

  static constexpr std::size_t kUnknownSize = static_cast<std::size_t>(-1);
  const char* format_;
  std::size_t input_size_;
  std::size_t budget_;
  std::size_t used_ = 0;
  std::vector<Frame> stack_;
  Value result_;
  std::string error_;
};

// Decodes [begin, end) of `format` through the ValueBuilder; every failure a ValueError
// saying "malformed <format> data" or what bound the input broke.
template <class Byte>
Value decode(const Byte* begin, const Byte* end, const char* format,
             Value::input_format_t input_format) {
  ValueBuilder builder(static_cast<std::size_t>(end - begin), format);
  bool ok = false;
  try {
    ok = Value::sax_parse(begin, end, &builder, input_format, /*strict=*/true);
  } catch (const Value::exception& e) {
    throw ValueError(std::string("malformed ") + format + " data: " + e.what());
  }
  if (!ok) {
    throw ValueError(builder.error().empty()
                         ? std::string("malformed ") + format + " data: rejected"
                         : builder.error());
  }
  return builder.take_result();
}

}  // namespace

Value msgpack_loads(std::span<const std::uint8_t> data) {
  return decode(data.data(), data.data() + data.size(), "MessagePack",
                Value::input_format_t::msgpack);
}

Value json_loads(std::string_view text) {
  return decode(text.data(), text.data() + text.size(), "JSON", Value::input_format_t::json);
}

}  // namespace korvalin_client::utils
