// Object storage: the MinIOAPI client interface and the function that obtains one.
#pragma once

#include <memory>
#include <string>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::com::minio {

// A client of an organisation's object store. Implementations must be safe to call from
// several threads at once (parallel result downloads share one client).
class MinIOAPI {
 public:
  virtual ~MinIOAPI() = default;

  // Stores `data` under `object_name` in `category` with the file format `format` (for
  // example "kvexp" or "png") and returns the stored object's location: a JSON-encodable
  // locator that download() understands.
  virtual Value upload(const std::string& object_name, const Bytes& data,
                       const std::string& category, const std::string& format) = 0;

  // Returns the bytes of the object at `locator` (a location returned by upload(), or a
  // result-chunk descriptor mapping). Throws when the object cannot be fetched.
  virtual Bytes download(const Value& locator) = 0;
};

// Where an object locator points. Every form download() accepts is read: a {"bucket",
// "object", ...} mapping, its JSON text, or a mapping whose "uri" is either (at most 4 deep).
// The names come back as the locator gives them; the object store that serves them checks
// them. A TypeError, KeyError or ValueError says what is wrong with the locator.
struct ObjectName {
  std::string bucket;
  std::string object;
};
ObjectName locate(const Value& locator);

// Asks the installed service backend for a client of the organisation's object store.
std::shared_ptr<MinIOAPI> get_minio_client(const Value& organization_id);

}  // namespace korvalin_client::com::minio
