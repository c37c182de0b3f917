// Reading an object locator in any of its forms (minio.hpp), for every object store: the
// embedded one and the server's, through HttpBackend.
#include <cstddef>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::com::minio {
namespace {

constexpr std::size_t kMaxLocatorText = std::size_t{1} << 20;
constexpr int kMaxUriHops = 4;

const std::string& locator_text(const Value& locator, const char* key) {
  const Value& v = require_key(locator, key);
  if (!v.is_string()) {
    throw TypeError(std::string("object locator \"") + key + "\" must be text, not " +
                    kind_name(v));
  }
  return v.get_ref<const std::string&>();
}

}  // namespace

ObjectName locate(const Value& locator) {
  Value parsed;
  const Value* current = &locator;
  for (int hop = 0; hop <= kMaxUriHops; ++hop) {
    if (current->is_string()) {
      const auto& text = current->get_ref<const std::string&>();
      if (text.size() > kMaxLocatorText) {
        throw ValueError("object locator is longer than " + std::to_string(kMaxLocatorText) +
                         " bytes");
      }
      Value next;
      try {
        next = utils::json_loads(text);
      } catch (const ValueError&) {
        throw ValueError("object locator is not valid JSON");
      }
      parsed = std::move(next);
      current = &parsed;
      continue;
    }
    if (!current->is_object()) {
      throw TypeError(std::string("object locator must be a mapping or its JSON text, not ") +
                      kind_name(*current));
    }
    if (current->contains("bucket") && current->contains("object")) {
      return ObjectName{locator_text(*current, "bucket"), locator_text(*current, "object")};
    }
    if (!current->contains("uri")) {
      throw KeyError("object locator needs \"bucket\" and \"object\", or \"uri\"");
    }
    current = &current->at("uri");
  }
  throw ValueError("object locator nests \"uri\" too deeply");
}

}  // namespace korvalin_client::com::minio
