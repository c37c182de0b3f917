// MessagePack encoding and decoding of Values.
#pragma once

#include <cstdint>
#include <span>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {

// Decodes one MessagePack document. Map keys must be text; a key repeated within one map keeps
// its first position and takes its last value. Bin values become bytes, ext values bytes with
// their ext type as the subtype (msgpack_dumps writes those back as ext). Malformed or truncated
// input, trailing bytes, or nesting deeper than 512 levels is a ValueError saying what is wrong;
// the work and memory spent are bounded by the size of the input.
Value msgpack_loads(std::span<const std::uint8_t> data);

// Encodes a Value as standard MessagePack (maps keep their key order).
Bytes msgpack_dumps(const Value& value);

}  // namespace korvalin_client::utils
