// Parameter codec: a parameter value to the (text, type name) pair a space stores, and back.
//
// The client's Group and the service both use it: the client to send and read values, the
// service to check a value against its type before storing it and to hand stored values to
// the device. Every kind of Value round-trips exactly:
//
//   type name  text                        example
//   "int"      decimal                     42          -> "42"
//   "float"    shortest exact decimal      0.1         -> "0.1" ("nan", "inf", "-inf")
//   "bool"     "true" / "false"            true        -> "true"
//   "str"      the text itself             "abc"       -> "abc"
//   "list"     JSON                        [1, 2]      -> "[1,2]"
//   "dict"     JSON                        {"a": 1}    -> "{\"a\":1}"
//   "null"     ""                          null        -> ""
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {

// The type names of stored parameters.
inline constexpr std::array<std::string_view, 7> kParameterTypes = {
    "int", "float", "bool", "str", "list", "dict", "null"};

// (text, type name) of `value`. `json_compact` chooses compact JSON ("[1,2]") or spaced JSON
// ("[1, 2]") for lists and mappings. Errors name parameter `key`: a TypeError for bytes, a
// ValueError for nan or infinity inside a list or mapping, invalid UTF-8 or too deep nesting.
std::pair<std::string, std::string> encode_parameter(const std::string& key, const Value& value,
                                                     bool json_compact = true);

// The value of a (text, type name) pair. A ValueError naming the type and text when the text
// is not a valid value of the type or the type is unknown; a TypeError when the type is not
// text, or `v` is neither text nor already of the type. A null type gives `v` as it stands; a
// `v` that is not text but already of the type is returned as it is.
Value decode_parameter(const Value& v, const Value& t);

// Called inside a catch block of a decode_parameter failure: raises the error being handled
// again, of the same kind (TypeError or ValueError), its text led by "cannot read parameter
// <key>: ". Any other exception is raised again unchanged.
[[noreturn]] void raise_unreadable(std::string_view key);

// The check a service makes before storing (v, t) for parameter `key`: `t` is one of
// kParameterTypes and `v` decodes as a value of it. Otherwise a ValueError led by
// "cannot store parameter <key>: ".
void check_stored_parameter(std::string_view key, const Value& v, const Value& t);

}  // namespace korvalin_client::utils
