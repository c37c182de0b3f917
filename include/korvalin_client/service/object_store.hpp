// ObjectStore: the embedded service's object storage, files under "<storage>/objects/".
//
// Objects live in one directory per organisation ("org-<id>", the bucket) under a generated
// name ("<2 hex>/<32 hex>[.<format>]"); the name a caller gives is kept in the locator only,
// never used as a path. Uploads are atomic (a crash never leaves a torn object): an object is
// written to a temporary file in "<objects>/.tmp/", locked while its writer lives, then
// renamed into place. Constructing an ObjectStore removes the temporaries of writers that
// died mid-write, never one still being written by a live process. download()
// resolves a locator only to a regular file inside the objects directory: hostile bucket or
// object names ("..", absolute paths, separators, links out) are refused, and so is an object
// of another organisation's bucket (a PermissionError): an ObjectStore serves one organisation.
//
// Locators: {"bucket", "object", "name", "category", "format"}. download() also accepts the
// JSON text of one, and a mapping carrying "uri" (a locator or its JSON text), such as a
// resource record or a result-piece record. Safe to use from several threads.
#pragma once

#include <cstdint>
#include <string>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service {

class ObjectStore : public com::minio::MinIOAPI {
 public:
  // `objects_dir` is created when missing; uploads go to the bucket of `organization_id`.
  // Removes the temporaries that dead writers left (one scan of "<objects_dir>/.tmp").
  ObjectStore(std::string objects_dir, std::int64_t organization_id);

  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override;
  Bytes download(const Value& locator) override;

  // The file a locator names, after validation (see above). A TypeError for a locator of the
  // wrong shape, a ValueError for a name that could leave the directory, a PermissionError for
  // another organisation's bucket.
  std::string resolve(const Value& locator) const;

  const std::string& directory() const { return dir_; }
  std::int64_t organization_id() const { return organization_id_; }

  // The bucket of an organisation: "org-<id>".
  static std::string bucket_of(std::int64_t organization_id);

 private:
  // Writes `data` to the new object file `path` through a locked temporary. A failure (the
  // write-fault hook's answer included) is a RuntimeError naming `path` and the error.
  void write_object(const std::string& path, const Bytes& data);

  std::string dir_;
  std::int64_t organization_id_;
};

}  // namespace korvalin_client::service
