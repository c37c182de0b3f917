// MessagePack encoding and decoding of Values, and JSON decoding with the same bounds.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {

// Decodes one MessagePack document. Map keys must be text; a key repeated within one map keeps
// its first position and takes its last value. Bin values become bytes, ext values bytes with
// their ext type as the subtype (msgpack_dumps writes those back as ext). Malformed or truncated
// input, trailing bytes, or nesting deeper than 512 levels is a ValueError saying what is wrong.
// The work is linear in the size of the input, and the memory bounded by it: the decoded value
// may take at most 32 bytes of memory per input byte plus 1 MiB (lists of float64 take about
// 2, of small integers 16, records about 21, one-letter texts 32); input that would decode to
// more, such as long runs of empty lists, is a ValueError saying that it decodes to too large
// a value. Freeing a decoded value briefly takes up to 16 bytes more per item (nlohmann
// flattens it to avoid deep recursion).
Value msgpack_loads(std::span<const std::uint8_t> data);

// Encodes a Value as MessagePack, as other clients' default encoders do: every real number as
// a float64, integers and lengths in their smallest form, maps in their key order, a binary
// with a subtype as an ext of that type and one without as a bin. Nesting deeper than 512
// levels, or a text, list, mapping or binary longer than 2^32 - 1, is a ValueError.
Bytes msgpack_dumps(const Value& value);

// Decodes one JSON document under the rules and bounds of msgpack_loads (depth, memory per
// input byte, repeated keys, linear work); the errors say "malformed JSON data".
Value json_loads(std::string_view text);

}  // namespace korvalin_client::utils
