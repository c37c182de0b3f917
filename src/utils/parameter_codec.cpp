#include "korvalin_client/utils/parameter_codec.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <system_error>
#include <vector>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::utils {

namespace {

// Error messages quote at most this much of a parameter text.
constexpr std::size_t kQuoteLimit = 80;

// `text` quoted and escaped as JSON, shortened when long.
std::string quote(std::string_view text) {
  bool shortened = text.size() > kQuoteLimit;
  if (shortened) text = text.substr(0, kQuoteLimit);
  std::string out = Value(std::string(text)).dump(-1, ' ', false, Value::error_handler_t::replace);
  if (shortened) out.insert(out.size() - 1, "...");
  return out;
}

// JSON for a list or mapping, written iteratively. `spaced` puts a space after every ','
// and ':'. Reals must be finite (JSON has no nan or infinity) and bytes have no JSON form.
std::string write_json(const std::string& key, const Value& root, bool spaced) {
  const char* comma = spaced ? ", " : ",";
  const char* colon = spaced ? ": " : ":";
  auto scalar = [&](const Value& v, std::string& out) {
    if (v.is_binary()) {
      throw TypeError("cannot store parameter " + key + ": bytes values are not supported");
    }
    if (v.is_number_float() && !std::isfinite(v.get<double>())) {
      throw ValueError("cannot store parameter " + key +
                       ": a list or mapping cannot hold nan or infinite reals");
    }
    try {
      out += v.dump();
    } catch (const Value::type_error&) {
      throw ValueError("cannot store parameter " + key + ": text is not valid UTF-8");
    }
  };

  struct Frame {
    const Value* node;
    Value::const_iterator it;
  };
  std::string out;
  std::vector<Frame> stack;
  auto open = [&](const Value& v) {
    if (stack.size() >= kMaxValueDepth) {
      throw ValueError("cannot store parameter " + key + ": lists and mappings nest deeper than " +
                       std::to_string(kMaxValueDepth) + " levels");
    }
    out += v.is_array() ? '[' : '{';
    stack.push_back({&v, v.cbegin()});
  };

  open(root);
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.it == top.node->cend()) {
      out += top.node->is_array() ? ']' : '}';
      stack.pop_back();
      continue;
    }
    if (top.it != top.node->cbegin()) out += comma;
    if (top.node->is_object()) {
      scalar(Value(top.it.key()), out);
      out += colon;
    }
    const Value& child = *top.it;
    ++top.it;  // before open(), which may reallocate the stack and invalidate `top`
    if (child.is_structured()) {
      open(child);
    } else {
      scalar(child, out);
    }
  }
  return out;
}

[[noreturn]] void bad_text(const std::string& type, const std::string& text) {
  throw ValueError("invalid \"" + type + "\" parameter text " + quote(text));
}

Value parse_int(const std::string& text) {
  std::string_view digits = text;
  bool negative = false;
  if (!digits.empty() && (digits.front() == '+' || digits.front() == '-')) {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) {
    bad_text("int", text);
  }
  std::uint64_t magnitude = 0;
  auto ec = std::from_chars(digits.data(), digits.data() + digits.size(), magnitude).ec;
  constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (ec == std::errc() && !negative && magnitude <= kMax) {
    return static_cast<std::int64_t>(magnitude);
  }
  if (ec == std::errc() && !negative) return magnitude;
  if (ec == std::errc() && magnitude <= kMax + 1) {
    // -(2^63) has no positive counterpart in int64, so negate in unsigned arithmetic.
    return static_cast<std::int64_t>(~magnitude + 1);
  }
  throw ValueError("\"int\" parameter text " + quote(text) + " is out of the 64-bit range");
}

Value parse_float(const std::string& text) {
  std::string_view s = text;
  // from_chars ignores the locale and skips no whitespace, but takes only a '-' sign.
  if (!s.empty() && s.front() == '+') {
    s.remove_prefix(1);
    if (!s.empty() && s.front() == '-') bad_text("float", text);
  }
  if (s.empty()) bad_text("float", text);
  double value = 0.0;
  const char* end = s.data() + s.size();
  auto [p, ec] = std::from_chars(s.data(), end, value);
  if (p != end) bad_text("float", text);
  if (ec == std::errc::result_out_of_range) {
    // Too large or too small for a double: strtod gives the infinity or zero it rounds to.
    value = std::strtod(std::string(s).c_str(), nullptr);
  } else if (ec != std::errc()) {
    bad_text("float", text);
  }
  return value;
}

Value parse_json(const std::string& type, const std::string& text) {
  // nlohmann's parser keeps its own stack on the heap, so any nesting parses safely; the
  // depth is checked before the value is used anywhere else.
  Value v = Value::parse(text, nullptr, false);
  if (v.is_discarded()) bad_text(type, text);
  check_depth(v, "\"" + type + "\" parameter text " + quote(text));
  if (type == "list" ? !v.is_array() : !v.is_object()) bad_text(type, text);
  return v;
}

// Whether a Value that is not text already is a value of the type.
bool already_of_type(const std::string& type, const Value& v) {
  if (type == "int") return v.is_number_integer();
  if (type == "float") return v.is_number();
  if (type == "bool") return v.is_boolean();
  if (type == "list") return v.is_array();
  if (type == "dict") return v.is_object();
  if (type == "null") return v.is_null();
  return false;
}

}  // namespace

std::pair<std::string, std::string> encode_parameter(const std::string& key, const Value& value,
                                                     bool json_compact) {
  switch (value.type()) {
    case Value::value_t::number_integer:
      return {std::to_string(value.get<std::int64_t>()), "int"};
    case Value::value_t::number_unsigned:
      return {std::to_string(value.get<std::uint64_t>()), "int"};
    case Value::value_t::number_float: {
      double d = value.get<double>();
      if (std::isnan(d)) return {"nan", "float"};
      if (std::isinf(d)) return {d > 0 ? "inf" : "-inf", "float"};
      // nlohmann writes the shortest text that reads back as the same double, and keeps a
      // ".0" on integral values so they stay reals.
      return {value.dump(), "float"};
    }
    case Value::value_t::boolean:
      return {value.get<bool>() ? "true" : "false", "bool"};
    case Value::value_t::string:
      return {value.get<std::string>(), "str"};
    case Value::value_t::array:
      return {write_json(key, value, !json_compact), "list"};
    case Value::value_t::object:
      return {write_json(key, value, !json_compact), "dict"};
    case Value::value_t::null:
      return {"", "null"};
    case Value::value_t::binary:
    case Value::value_t::discarded:
      break;
  }
  throw TypeError("cannot store parameter " + key + ": " +
                  (value.is_binary() ? "bytes values are" : "this value is") + " not supported");
}

Value decode_parameter(const Value& v, const Value& t) {
  if (t.is_null()) return v;
  if (!t.is_string()) {
    throw TypeError(std::string("a parameter type must be text, not ") + kind_name(t));
  }
  const std::string& type = t.get_ref<const std::string&>();
  if (std::find(kParameterTypes.begin(), kParameterTypes.end(), type) == kParameterTypes.end()) {
    throw ValueError("unknown parameter type " + quote(type));
  }

  if (!v.is_string()) {
    if (!already_of_type(type, v)) {
      throw TypeError("a \"" + type + "\" parameter value must be text or of the type, not " +
                      kind_name(v));
    }
    check_depth(v, "\"" + type + "\" parameter value");
    if (type == "float" && !v.is_number_float()) return v.get<double>();
    return v;
  }

  const std::string& text = v.get_ref<const std::string&>();
  if (type == "str") return v;
  if (type == "int") return parse_int(text);
  if (type == "float") return parse_float(text);
  if (type == "bool") {
    if (text == "true" || text == "True" || text == "1") return true;
    if (text == "false" || text == "False" || text == "0") return false;
    bad_text(type, text);
  }
  if (type == "null") {
    if (text.empty() || text == "null" || text == "None") return nullptr;
    bad_text(type, text);
  }
  return parse_json(type, text);
}

[[noreturn]] void raise_unreadable(std::string_view key) {
  const std::string lead = "cannot read parameter " + std::string(key) + ": ";
  try {
    throw;
  } catch (const TypeError& e) {
    throw TypeError(lead + e.what());
  } catch (const ValueError& e) {
    throw ValueError(lead + e.what());
  }
}

void check_stored_parameter(std::string_view key, const Value& v, const Value& t) {
  const std::string lead = "cannot store parameter " + std::string(key) + ": ";
  if (!t.is_string()) {
    std::string names;
    for (std::string_view name : kParameterTypes) {
      names += names.empty() ? "" : ", ";
      names += quote(name);
    }
    throw ValueError(lead + "its type must be one of " + names + ", not " + kind_name(t));
  }
  try {
    decode_parameter(v, t);
  } catch (const Error& e) {
    throw ValueError(lead + e.what());
  }
}

}  // namespace korvalin_client::utils
