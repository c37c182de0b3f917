#include "korvalin_client/service/object_store.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string_view>
#include <system_error>

#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "store_files.hpp"

namespace korvalin_client::service {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxLocatorText = std::size_t{1} << 20;
constexpr std::size_t kMaxObjectText = 512;
constexpr std::size_t kMaxObjectLevels = 4;
// Objects are written here, then renamed into their bucket. Not a bucket name ("org-<id>"),
// so no locator resolves into it.
constexpr const char* kTempDir = ".tmp";
constexpr std::string_view kTempPrefix = "part-";

bool all_of(std::string_view s, bool (*ok)(char)) {
  for (char c : s) {
    if (!ok(c)) return false;
  }
  return true;
}
bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_alnum(char c) { return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool is_name_char(char c) { return is_alnum(c) || c == '.' || c == '_' || c == '-'; }

void check_text(const std::string& text, std::string_view what, std::size_t limit) {
  if (text.size() > limit) {
    throw ValueError(std::string(what) + " is longer than " + std::to_string(limit) + " bytes");
  }
}

void check_bucket(const std::string& bucket) {
  const std::string_view digits = std::string_view(bucket).substr(bucket.size() < 4 ? 0 : 4);
  if (bucket.rfind("org-", 0) != 0 || digits.empty() || digits.size() > 19 ||
      !all_of(digits, is_digit)) {
    throw ValueError("object locator names no bucket of this store: \"" + bucket.substr(0, 64) +
                     "\"");
  }
}

void check_object(const std::string& object) {
  const auto bad = [&] {
    return ValueError("object locator names no object of this store: \"" + object.substr(0, 64) +
                      "\"");
  };
  if (object.empty() || object.size() > kMaxObjectText) throw bad();
  std::size_t levels = 0;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = object.find('/', start);
    const std::string part =
        object.substr(start, slash == std::string::npos ? std::string::npos : slash - start);
    try {
      utils::check_child_name(part, "object name");
    } catch (const RuntimeError&) {
      throw bad();
    }
    if (!all_of(part, is_name_char) || ++levels > kMaxObjectLevels) throw bad();
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
}

}  // namespace

std::string ObjectStore::bucket_of(std::int64_t organization_id) {
  return "org-" + std::to_string(organization_id);
}

ObjectStore::ObjectStore(std::string objects_dir, std::int64_t organization_id)
    : dir_(std::move(objects_dir)), organization_id_(organization_id) {
  if (organization_id < 0) {
    throw ValueError("organization_id must not be negative: " + std::to_string(organization_id));
  }
  files::make_private_dirs(dir_ + "/" + kTempDir);
  // Writers that died mid-write (killed, crashed) left their temporaries behind.
  files::remove_abandoned_temporaries(dir_ + "/" + kTempDir, kTempPrefix);
}

ObjectStore::ObjectStore(std::string objects_dir, std::int64_t organization_id,
                         std::shared_ptr<ObjectAccess> access)
    : dir_(std::move(objects_dir)), organization_id_(organization_id), access_(std::move(access)) {}

std::shared_ptr<ObjectStore> ObjectStore::guarded(std::shared_ptr<ObjectAccess> access) const {
  if (!access) throw ValueError("a guarded object store needs an access rule, not null");
  return std::shared_ptr<ObjectStore>(new ObjectStore(dir_, organization_id_, std::move(access)));
}

std::string ObjectStore::missing(const std::string& bucket_and_object) {
  return "no stored object \"" + bucket_and_object + "\"";
}

struct ObjectStore::Writer::Temp {
  Temp(const std::string& dir, const std::string& target) : file(dir, kTempPrefix, target) {}
  files::LockedTemp file;
};

ObjectStore::Writer::Writer(std::string path, Value locator, std::unique_ptr<Temp> temp, int fd,
                            std::shared_ptr<ObjectAccess> access)
    : path_(std::move(path)),
      locator_(std::move(locator)),
      temp_(std::move(temp)),
      fd_(fd),
      access_(std::move(access)) {}

ObjectStore::Writer::~Writer() {
  if (fd_ >= 0) ::close(fd_);
}

// Errors name the object as its locator does, never the store's directory.
void ObjectStore::Writer::fail(int err) const {
  throw RuntimeError("cannot write the object \"" + locator_["bucket"].get<std::string>() + "/" +
                     locator_["object"].get<std::string>() + "\": " + std::strerror(err));
}

void ObjectStore::Writer::write(const void* data, std::size_t size) {
  if (fd_ < 0) throw RuntimeError("the object was already committed");
  if (access_ && room_ && static_cast<std::uint64_t>(written_) + size >
                              static_cast<std::uint64_t>(*room_)) {
    access_->check_room(written_ + static_cast<std::int64_t>(size));  // with the message
    room_ = access_->bytes_left();  // made room meanwhile
  }
  written_ += static_cast<std::int64_t>(size);
  const auto* p = static_cast<const std::uint8_t*>(data);
  while (size > 0) {
    const std::size_t step = std::min(size, std::size_t{1} << 30);
    const ssize_t n = ::write(fd_, p, step);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(errno);
    }
    p += n;
    size -= static_cast<std::size_t>(n);
  }
}

void ObjectStore::Writer::expect(std::uint64_t size) {
  if (access_ && room_ && size > static_cast<std::uint64_t>(*room_)) {
    access_->check_room(static_cast<std::int64_t>(
        std::min<std::uint64_t>(size, std::numeric_limits<std::int64_t>::max())));
  }
}

Value ObjectStore::Writer::commit() {
  if (fd_ < 0) throw RuntimeError("the object was already committed");
  const int fd = fd_;
  fd_ = -1;
  // Closing reports late write errors.
  if (::close(fd) != 0) fail(errno);
  files::make_private_dirs(path_.substr(0, path_.rfind('/')));
  temp_->file.rename_into_place();
  if (access_) {
    try {
      access_->uploaded(locator_["object"].get<std::string>(), written_);
    } catch (...) {
      ::unlink(path_.c_str());  // an object no one may read is no object
      throw;
    }
  }
  return locator_;
}

std::unique_ptr<ObjectStore::Writer> ObjectStore::begin_upload(const std::string& object_name,
                                                               const std::string& category,
                                                               const std::string& format) {
  check_text(object_name, "object_name", kMaxLocatorText);
  check_text(category, "category", kMaxObjectText);
  check_text(format, "format", kMaxObjectText);
  // The format becomes the file's extension only when it is a plain short word.
  const bool plain_format = !format.empty() && format.size() <= 16 && all_of(format, is_alnum);
  const std::string bucket = bucket_of(organization_id_);
  std::string object;
  std::string path;
  do {
    const std::string id = files::random_hex(16);
    object = id.substr(0, 2) + "/" + id + (plain_format ? "." + format : "");
    path = dir_ + "/" + bucket + "/" + object;
  } while (utils::path_exists(path));
  Value locator{{"bucket", bucket},
                {"object", object},
                {"name", object_name},
                {"category", category},
                {"format", format}};
  auto temp = std::make_unique<Writer::Temp>(dir_ + "/" + kTempDir, path);
  // A descriptor of its own, so that closing it (which reports late write errors) does not
  // release the lock the temporary keeps until it is in place.
  const int fd = ::open(temp->file.path().c_str(), O_WRONLY | O_CLOEXEC);
  std::unique_ptr<Writer> writer(
      new Writer(path, std::move(locator), std::move(temp), fd, access_));
  if (fd < 0) writer->fail(errno);
  if (const int err = injected_write_error(path)) writer->fail(err);
  if (access_) writer->room_ = access_->bytes_left();
  return writer;
}

Value ObjectStore::upload(const std::string& object_name, const Bytes& data,
                          const std::string& category, const std::string& format) {
  const std::unique_ptr<Writer> writer = begin_upload(object_name, category, format);
  writer->expect(data.size());
  writer->write(data.data(), data.size());
  return writer->commit();
}

std::optional<std::string> ObjectStore::resolve(const Value& locator) const {
  const auto [bucket, object] = com::minio::locate(locator);
  check_bucket(bucket);
  check_object(object);
  if (bucket != bucket_of(organization_id_) || (access_ && !access_->may_read(object))) {
    return std::nullopt;
  }
  const std::string path = dir_ + "/" + bucket + "/" + object;
  // Links inside the store must not lead out of it either.
  std::error_code ec;
  const fs::path root = fs::weakly_canonical(dir_, ec);
  const fs::path real = fs::weakly_canonical(path, ec);
  const std::string root_text = root.string() + "/";
  if (ec || real.string().rfind(root_text, 0) != 0) {
    throw ValueError("object locator leads outside the object store: \"" + bucket + "/" +
                     object + "\"");
  }
  return path;
}

Bytes ObjectStore::download(const Value& locator) {
  const std::optional<std::string> path = resolve(locator);
  std::error_code ec;
  if (!path || !fs::is_regular_file(*path, ec)) {
    const auto [bucket, object] = com::minio::locate(locator);
    throw RuntimeError(missing(bucket + "/" + object));
  }
  return utils::read_file(*path);
}

}  // namespace korvalin_client::service
