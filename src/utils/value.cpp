#include "korvalin_client/utils/value.hpp"

namespace korvalin_client {

const char* kind_name(const Value& v) {
  switch (v.type()) {
    case Value::value_t::null:
      return "null";
    case Value::value_t::boolean:
      return "boolean";
    case Value::value_t::number_integer:
    case Value::value_t::number_unsigned:
      return "integer";
    case Value::value_t::number_float:
      return "real";
    case Value::value_t::string:
      return "text";
    case Value::value_t::array:
      return "list";
    case Value::value_t::object:
      return "mapping";
    case Value::value_t::binary:
      return "bytes";
    case Value::value_t::discarded:
      break;
  }
  return "unknown";
}

namespace {

[[noreturn]] void not_a_record(const Value& record, std::string_view key) {
  throw TypeError("cannot read key \"" + std::string(key) + "\" of a " + kind_name(record) +
                  " value");
}

[[noreturn]] void missing(std::string_view key) {
  throw KeyError("missing key \"" + std::string(key) + "\"");
}

[[noreturn]] void wrong_kind(std::string_view what, const char* wanted, const Value& v) {
  throw TypeError(std::string(what) + " must be " + wanted + ", not " + kind_name(v));
}

bool is_int(const Value& v) { return v.is_number_integer(); }

}  // namespace

const Value& require_key(const Value& record, std::string_view key) {
  if (!record.is_object()) not_a_record(record, key);
  auto it = record.find(key);
  if (it == record.end()) missing(key);
  return *it;
}

Value& require_key(Value& record, std::string_view key) {
  if (!record.is_object()) not_a_record(record, key);
  auto it = record.find(key);
  if (it == record.end()) missing(key);
  return *it;
}

Value get_key(const Value& record, std::string_view key, Value fallback) {
  if (!record.is_object()) not_a_record(record, key);
  auto it = record.find(key);
  if (it == record.end()) return fallback;
  return *it;
}

std::int64_t require_int(const Value& record, std::string_view key) {
  const Value& v = require_key(record, key);
  if (!is_int(v)) wrong_kind("\"" + std::string(key) + "\"", "an integer", v);
  return v.get<std::int64_t>();
}

std::string require_text(const Value& record, std::string_view key) {
  const Value& v = require_key(record, key);
  if (!v.is_string()) wrong_kind("\"" + std::string(key) + "\"", "text", v);
  return v.get<std::string>();
}

void expect_int_or_null(const Value& v, std::string_view what) {
  if (!v.is_null() && !is_int(v)) wrong_kind(what, "an integer or null", v);
}

void expect_text_or_null(const Value& v, std::string_view what) {
  if (!v.is_null() && !v.is_string()) wrong_kind(what, "text or null", v);
}

void expect_mapping_or_null(const Value& v, std::string_view what) {
  if (!v.is_null() && !v.is_object()) wrong_kind(what, "a mapping or null", v);
}

void expect_list_or_null(const Value& v, std::string_view what) {
  if (!v.is_null() && !v.is_array()) wrong_kind(what, "a list or null", v);
}

std::int64_t expect_int(const Value& v, std::string_view what) {
  if (!is_int(v)) wrong_kind(what, "an integer", v);
  return v.get<std::int64_t>();
}

const std::string& expect_text(const Value& v, std::string_view what) {
  if (!v.is_string()) wrong_kind(what, "text", v);
  return v.get_ref<const std::string&>();
}

Bytes to_bytes(Value&& v, std::string_view what) {
  if (v.is_binary()) return std::move(v.get_binary());
  if (v.is_string()) {
    const auto& s = v.get_ref<const std::string&>();
    return Bytes(s.begin(), s.end());
  }
  wrong_kind(what, "bytes", v);
}

ValueShape inspect_value(const Value& v) {
  ValueShape shape;
  shape.has_bytes = v.is_binary();
  if (!v.is_structured()) return shape;
  std::vector<std::pair<const Value*, std::size_t>> stack{{&v, 1}};
  while (!stack.empty()) {
    auto [node, depth] = stack.back();
    stack.pop_back();
    if (depth > kMaxValueDepth) {
      shape.too_deep = true;
      return shape;
    }
    for (const auto& child : *node) {
      if (child.is_structured()) stack.emplace_back(&child, depth + 1);
      if (child.is_binary()) shape.has_bytes = true;
    }
  }
  return shape;
}

void check_depth(const Value& v, std::string_view what) {
  if (inspect_value(v).too_deep) {
    throw ValueError(std::string(what) + " nests lists and mappings deeper than " +
                     std::to_string(kMaxValueDepth) + " levels");
  }
}

bool truthy(const Value& v) {
  switch (v.type()) {
    case Value::value_t::null:
    case Value::value_t::discarded:
      return false;
    case Value::value_t::boolean:
      return v.get<bool>();
    case Value::value_t::number_integer:
      return v.get<std::int64_t>() != 0;
    case Value::value_t::number_unsigned:
      return v.get<std::uint64_t>() != 0;
    case Value::value_t::number_float:
      return v.get<double>() != 0.0;
    case Value::value_t::string:
      return !v.get_ref<const std::string&>().empty();
    case Value::value_t::binary:
      return !v.get_binary().empty();
    case Value::value_t::array:
    case Value::value_t::object:
      return !v.empty();
  }
  return false;
}

std::string to_text(const Value& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_null()) return "None";
  return v.dump(-1, ' ', false, Value::error_handler_t::replace);
}

}  // namespace korvalin_client
