// ObjectStore: the embedded service's object storage, files under "<storage>/objects/".
//
// Objects live in one directory per organisation ("org-<id>", the bucket) under a generated
// name ("<2 hex>/<32 hex>[.<format>]"); the name a caller gives is kept in the locator only,
// never used as a path. Uploads are atomic (a crash never leaves a torn object): an object is
// written to a temporary file in "<objects>/.tmp/", locked while its writer lives, then
// renamed into place. Constructing an ObjectStore removes the temporaries of writers that
// died mid-write, never one still being written by a live process. download()
// resolves a locator only to a regular file inside the objects directory: hostile bucket or
// object names ("..", absolute paths, separators, links out) are refused (a ValueError). An
// ObjectStore serves one organisation: an object of another bucket is not there for it.
//
// The ObjectStore an Engine makes for itself reads and writes every object of the bucket
// (recording each upload with its size, as the service's, within the organisation's byte
// quota: docs/decisions/quotas.md). The one it makes for a user (guarded(), Engine::objects_of)
// records each upload as the user's and finds only the objects the user may read
// (ObjectAccess); any other is answered exactly as an object that does not exist. Files and
// directories are readable by their owner only.
//
// Locators: {"bucket", "object", "name", "category", "format"}. download() also accepts the
// JSON text of one, and a mapping carrying "uri" (a locator or its JSON text), such as a
// resource record or a result-piece record. Safe to use from several threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "korvalin_client/com/minio.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service {

// What one user may do with the objects of their organisation's bucket (Engine::objects_of).
class ObjectAccess {
 public:
  virtual ~ObjectAccess() = default;
  // Records `object` of `size` bytes, which the user has just uploaded; a QuotaError when it
  // would pass their organisation's byte quota (the object is then removed).
  virtual void uploaded(const std::string& object, std::int64_t size) = 0;
  // Whether the user may read `object`.
  virtual bool may_read(const std::string& object) = 0;
  // The bytes the organisation may still store (none: unlimited).
  virtual std::optional<std::int64_t> bytes_left() = 0;
  // A QuotaError unless `size` more bytes fit in the organisation's quota.
  virtual void check_room(std::int64_t size) = 0;
};

class ObjectStore : public com::minio::MinIOAPI {
 public:
  // `objects_dir` is created when missing; uploads go to the bucket of `organization_id`.
  // Removes the temporaries that dead writers left (one scan of "<objects_dir>/.tmp").
  ObjectStore(std::string objects_dir, std::int64_t organization_id);

  // The same bucket for one user: uploads are recorded through `access`, and only what it
  // lets the user read is found.
  std::shared_ptr<ObjectStore> guarded(std::shared_ptr<ObjectAccess> access) const;

  Value upload(const std::string& object_name, const Bytes& data, const std::string& category,
               const std::string& format) override;

  // An object written piece by piece (a request body as it arrives): it exists only once
  // commit() returns its locator; a writer dropped before that leaves nothing behind.
  class Writer {
   public:
    ~Writer();
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;
    // A RuntimeError naming the object on a failed write (a full disk); a QuotaError once
    // what was written passes the organisation's byte quota (its bytes are dropped).
    void write(const void* data, std::size_t size);
    // A QuotaError now when `size` bytes, announced before they arrive, would not fit.
    void expect(std::uint64_t size);
    Value commit();

   private:
    friend class ObjectStore;
    struct Temp;
    Writer(std::string path, Value locator, std::unique_ptr<Temp> temp, int fd,
           std::shared_ptr<ObjectAccess> access);
    [[noreturn]] void fail(int err) const;
    std::string path_;
    Value locator_;
    std::unique_ptr<Temp> temp_;
    int fd_;
    std::shared_ptr<ObjectAccess> access_;
    std::int64_t written_ = 0;
    std::optional<std::int64_t> room_;  // what the quota allowed at the start
  };
  // Checks the names as upload() does and starts the object.
  std::unique_ptr<Writer> begin_upload(const std::string& object_name, const std::string& category,
                                       const std::string& format);
  Bytes download(const Value& locator) override;

  // The file a locator names, after validation (see above); nothing for an object this store
  // does not serve (another bucket's, or one its user may not read). A TypeError for a
  // locator of the wrong shape, a ValueError for a name that could leave the directory.
  std::optional<std::string> resolve(const Value& locator) const;
  // What download() and a server say of an object that is not there: "no stored object
  // \"<bucket>/<object>\"".
  static std::string missing(const std::string& bucket_and_object);

  const std::string& directory() const { return dir_; }
  std::int64_t organization_id() const { return organization_id_; }

  // The bucket of an organisation: "org-<id>".
  static std::string bucket_of(std::int64_t organization_id);

 private:
  ObjectStore(std::string objects_dir, std::int64_t organization_id,
              std::shared_ptr<ObjectAccess> access);

  std::string dir_;
  std::int64_t organization_id_;
  std::shared_ptr<ObjectAccess> access_;  // null: reads everything, records nothing
};

}  // namespace korvalin_client::service
