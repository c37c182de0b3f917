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

#include <cstddef>
#include <cstdint>
#include <memory>
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

  // An object written piece by piece (a request body as it arrives): it exists only once
  // commit() returns its locator; a writer dropped before that leaves nothing behind.
  class Writer {
   public:
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    // A RuntimeError naming the object on a failed write (a full disk).
    void write(const void* data, std::size_t size);
    Value commit();

   private:
    friend class ObjectStore;
    struct Temp;
    Writer(std::string path, Value locator, std::unique_ptr<Temp> temp, int fd);
    [[noreturn]] void fail(int err) const;
    std::string path_;
    Value locator_;
    std::unique_ptr<Temp> temp_;
    int fd_;
  };
  // Checks the names as upload() does and starts the object.
  std::unique_ptr<Writer> begin_upload(const std::string& object_name, const std::string& category,
                                       const std::string& format);
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
  std::string dir_;
  std::int64_t organization_id_;
};

}  // namespace korvalin_client::service
