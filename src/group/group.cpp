#include "korvalin_client/group/group.hpp"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <string_view>
#include <system_error>

namespace korvalin_client::group {

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

constexpr std::string_view kTypeNames[] = {"int", "float", "bool", "str", "list", "dict", "null"};

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

// The pending changes as a mapping; the field is public, so it may have been replaced.
Value& pending_mapping(Value& pending) {
  if (pending.is_null()) pending = Value::object();
  if (!pending.is_object()) {
    throw TypeError(std::string("waiting_for_submit must be a mapping, not ") +
                    kind_name(pending));
  }
  return pending;
}

}  // namespace

void Group::initialize(const std::string& group_name,
                       const std::optional<std::string>& /*space_name*/,
                       std::optional<std::int64_t> space_version, const Value& space_parameters,
                       const Value& temporary_parameters) {
  // The space name matters only to groups that talk to the service; a Group of its own has
  // no spaces to look it up in.
  expect_mapping_or_null(space_parameters, "space_parameters");
  expect_mapping_or_null(temporary_parameters, "temporary_parameters");
  check_depth(space_parameters, "space_parameters");
  check_depth(temporary_parameters, "temporary_parameters");

  this->group_name = group_name;
  space_id.reset();
  this->space_version = space_version;
  this->space_parameters.clear();
  waiting_for_submit = Value::object();
  this->temporary_parameters.clear();
  loaded_source_ = 0;
  set_since_load_.clear();
  if (space_parameters.is_object()) {
    for (const auto& [key, value] : space_parameters.items()) set_space_parameter(key, value);
  }
  if (temporary_parameters.is_object()) {
    for (const auto& [key, value] : temporary_parameters.items()) {
      this->temporary_parameters[utils::normalize_key(key)] = value;
    }
  }
}

void Group::set_space_parameter(const std::string& key, Value value) {
  std::string full = utils::normalize_key(key);
  check_depth(value, "parameter " + full);
  pending_mapping(waiting_for_submit)[full] = value;
  set_since_load_.insert(full);
  space_parameters[full] = std::move(value);
}

Value Group::get_space_parameter(const std::string& key, bool refresh_cache) {
  std::string full = utils::normalize_key(key);
  if (refresh_cache) refresh_space_parameters();
  if (auto it = temporary_parameters.find(full); it != temporary_parameters.end()) {
    return it->second;
  }
  if (auto it = space_parameters.find(full); it != space_parameters.end()) return it->second;
  throw KeyError("parameter " + full + " has no value");
}

std::pair<std::string, std::string> Group::serialize_parameter(const std::string& key,
                                                               const Value& value,
                                                               bool json_compact) const {
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

Value Group::deserialize_single_parameter(const Value& v, const Value& t) {
  if (t.is_null()) return v;
  if (!t.is_string()) {
    throw TypeError(std::string("a parameter type must be text, not ") + kind_name(t));
  }
  const std::string& type = t.get_ref<const std::string&>();
  bool known = false;
  for (std::string_view name : kTypeNames) known = known || name == type;
  if (!known) throw ValueError("unknown parameter type " + quote(type));

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

ParameterMap Group::deserialize_parameter(const std::vector<std::string>& keys,
                                          const std::vector<Value>& values,
                                          const std::vector<Value>& types) {
  if (keys.size() != values.size() || keys.size() != types.size()) {
    throw ValueError("parameter keys, values and types differ in length (" +
                     std::to_string(keys.size()) + ", " + std::to_string(values.size()) + ", " +
                     std::to_string(types.size()) + ")");
  }
  ParameterMap out;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    out[keys[i]] = deserialize_single_parameter(values[i], types[i]);
  }
  return out;
}

void Group::input_space_parameter_from_cache(
    std::int64_t space_id, const std::vector<utils::SpaceCache::Record>& records) {
  // Everything is read before anything changes, so a bad record leaves the group as it was.
  ParameterMap fresh;
  for (const auto& record : records) {
    // Records come ordered by key, so inserting at the end is the common, constant-time case.
    fresh.insert_or_assign(fresh.end(), utils::normalize_key(record.key),
                           deserialize_single_parameter(record.value, record.type));
  }
  for (const auto& [key, value] : pending_mapping(waiting_for_submit).items()) {
    fresh[key] = value;
  }
  space_parameters = std::move(fresh);
  this->space_id = space_id;
  loaded_source_ = 0;
  set_since_load_.clear();
}

void Group::input_space_parameter_from_cache(std::int64_t space_id,
                                             const utils::SpaceCache::Contents& contents) {
  std::optional<utils::SpaceCache::Changes> changes;
  if (loaded_source_ != 0 && loaded_source_ == contents.source() && loaded_space_ == space_id) {
    changes = contents.changes_since(loaded_generation_);
  }
  if (!changes) {
    input_space_parameter_from_cache(space_id, contents.records());
  } else {
    // Keys set since the last load go back to their cached value (or away), as a full load
    // would do, before the pending changes are laid over again.
    std::set<std::string> known;
    for (const auto& record : changes->changed) known.insert(record.key);
    known.insert(changes->removed.begin(), changes->removed.end());
    for (const auto& key : set_since_load_) {
      if (known.contains(key)) continue;
      if (auto record = contents.find(key)) {
        changes->changed.push_back(std::move(*record));
      } else {
        changes->removed.push_back(key);
      }
    }

    // Everything is read before anything changes, as in a full load.
    std::vector<std::pair<std::string, Value>> updates;
    updates.reserve(changes->changed.size());
    for (const auto& record : changes->changed) {
      updates.emplace_back(utils::normalize_key(record.key),
                           deserialize_single_parameter(record.value, record.type));
    }
    const Value& pending = pending_mapping(waiting_for_submit);

    for (const auto& key : changes->removed) space_parameters.erase(utils::normalize_key(key));
    for (auto& [key, value] : updates) space_parameters.insert_or_assign(key, std::move(value));
    for (const auto& [key, value] : pending.items()) space_parameters[key] = value;
    this->space_id = space_id;
    set_since_load_.clear();
  }
  loaded_source_ = contents.source();
  loaded_generation_ = contents.generation();
  loaded_space_ = space_id;
}

void Group::submit_space_parameter() { waiting_for_submit = Value::object(); }

}  // namespace korvalin_client::group
