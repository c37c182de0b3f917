#include "korvalin_client/utils/decode_msgpack.hpp"

#include <cstddef>
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

// Builds a Value from nlohmann's SAX events. Every open list or mapping is a frame of its
// own; a finished value is moved into the frame below it. Length prefixes from the input are
// never used to reserve memory, so memory grows only with the bytes actually read.
class ValueBuilder {
 public:
  using number_integer_t = Value::number_integer_t;
  using number_unsigned_t = Value::number_unsigned_t;
  using number_float_t = Value::number_float_t;
  using string_t = Value::string_t;
  using binary_t = Value::binary_t;

  bool null() { return put(Value(nullptr)); }
  bool boolean(bool v) { return put(Value(v)); }
  bool number_integer(number_integer_t v) { return put(Value(v)); }
  bool number_unsigned(number_unsigned_t v) { return put(Value(v)); }
  bool number_float(number_float_t v, const string_t& /*text*/) { return put(Value(v)); }
  bool string(string_t& v) { return put(Value(std::move(v))); }
  bool binary(binary_t& v) {
    // Value::binary(binary_t&&) would bind to the bare byte vector and lose an ext type.
    const bool ext = v.has_subtype();
    const auto subtype = v.subtype();
    auto& bytes = static_cast<binary_t::container_type&>(v);
    return put(ext ? Value::binary(std::move(bytes), subtype) : Value::binary(std::move(bytes)));
  }

  bool start_object(std::size_t /*claimed_size*/) { return open(Value::object()); }
  bool start_array(std::size_t /*claimed_size*/) { return open(Value::array()); }

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
    error_ = what;
    return false;
  }

  const std::string& error() const { return error_; }
  Value take_result() { return std::move(result_); }

 private:
  struct Frame {
    Value value;
    // Mappings only: the key of the member being read, and where each key already sits, so
    // that a long mapping is built in linear time (and a repeated key keeps its first place
    // and takes the last value).
    std::string key;
    std::unordered_map<std::string, std::size_t> index;
  };

  bool open(Value container) {
    if (stack_.size() >= kMaxDepth) {
      error_ = "nested deeper than " + std::to_string(kMaxDepth) + " levels";
      return false;
    }
    stack_.push_back(Frame{std::move(container), {}, {}});
    return true;
  }

  bool close() {
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
      top.value.get_ref<Value::array_t&>().push_back(std::move(v));
      return true;
    }
    auto& members = top.value.get_ref<Value::object_t&>();
    const auto [slot, fresh] = top.index.try_emplace(top.key, members.size());
    if (fresh) {
      members.emplace_back(std::move(top.key), std::move(v));
    } else {
      // ordered_map's operator[] takes a key, so step to the position by iterator.
      (members.begin() + static_cast<std::ptrdiff_t>(slot->second))->second = std::move(v);
    }
    return true;
  }

  std::vector<Frame> stack_;
  Value result_;
  std::string error_;
};

}  // namespace

Value msgpack_loads(std::span<const std::uint8_t> data) {
  ValueBuilder builder;
  bool ok = false;
  try {
    ok = Value::sax_parse(data.data(), data.data() + data.size(), &builder,
                          Value::input_format_t::msgpack, /*strict=*/true);
  } catch (const Value::exception& e) {
    throw ValueError(std::string("malformed MessagePack data: ") + e.what());
  }
  if (!ok) {
    throw ValueError("malformed MessagePack data: " +
                     (builder.error().empty() ? std::string("rejected") : builder.error()));
  }
  return builder.take_result();
}

Bytes msgpack_dumps(const Value& value) { return Value::to_msgpack(value); }

}  // namespace korvalin_client::utils
