// Value: the one data type records, listings and arguments of the service travel in.
//
// A Value is an nlohmann::ordered_json: mappings keep their key order, lists, text, integers,
// reals, booleans, null and bytes (binary) are all representable. The helpers below read
// fields of records with clear errors that name the key or argument at fault.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client {

using Value = nlohmann::ordered_json;
using Bytes = std::vector<std::uint8_t>;

// The name of a Value's kind as a user would say it: "null", "boolean", "integer", "real",
// "text", "list", "mapping", "bytes".
const char* kind_name(const Value& v);

// Reads a required key of a record. A record that is not a mapping is a TypeError
// ("cannot read key "k" of a null value"); a missing key is a KeyError naming the key.
const Value& require_key(const Value& record, std::string_view key);
Value& require_key(Value& record, std::string_view key);

// Reads an optional key: the value when present, otherwise `fallback` (null by default).
// A record that is not a mapping is a TypeError.
Value get_key(const Value& record, std::string_view key, Value fallback = nullptr);

// Typed reads of a required key; a value of another kind is a TypeError naming the key.
std::int64_t require_int(const Value& record, std::string_view key);
std::string require_text(const Value& record, std::string_view key);

// Argument checks at a call boundary: `what` names the argument in the error.
// Null is accepted by the *_or_null forms.
void expect_int_or_null(const Value& v, std::string_view what);
void expect_text_or_null(const Value& v, std::string_view what);
void expect_mapping_or_null(const Value& v, std::string_view what);
void expect_list_or_null(const Value& v, std::string_view what);
std::int64_t expect_int(const Value& v, std::string_view what);
const std::string& expect_text(const Value& v, std::string_view what);

// Bytes carried in a Value: a binary Value, or a text (taken byte for byte).
// Anything else is a TypeError naming `what`.
Bytes to_bytes(Value&& v, std::string_view what);

// The most levels lists and mappings may nest in a Value the library keeps or passes on:
// nlohmann's copy, comparison and dump recurse once per level, so deeper values could exhaust
// the stack.
inline constexpr std::size_t kMaxValueDepth = 512;

// What an iterative walk of a Value found.
struct ValueShape {
  bool too_deep = false;   // lists and mappings nest deeper than kMaxValueDepth
  bool has_bytes = false;  // a bytes (binary) value occurs anywhere
};
ValueShape inspect_value(const Value& v);

// A ValueError "<what> nests lists and mappings deeper than 512 levels" when `v` does.
void check_depth(const Value& v, std::string_view what);

// A Value's truth as a condition: null, false, zero, empty text, list, mapping or bytes are
// false; everything else is true.
bool truthy(const Value& v);

// The readable text of a Value for messages and progress lines: text as it stands,
// null as "None", anything else as compact JSON.
std::string to_text(const Value& v);

}  // namespace korvalin_client
