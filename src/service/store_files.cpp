#include "store_files.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service::files {
namespace {

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool ends_with_any(std::string_view name, std::initializer_list<std::string_view> suffixes) {
  for (std::string_view s : suffixes) {
    if (name.size() > s.size() && name.ends_with(s)) return true;
  }
  return false;
}

int lock_exclusive(int fd, bool wait) {
  int rc;
  do {
    rc = ::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB));
  } while (rc != 0 && errno == EINTR);
  return rc;
}

}  // namespace

void make_private_dirs(const std::string& dir) {
  if (dir.empty()) return;
  struct stat st {};
  if (::stat(dir.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return;
    throw RuntimeError("cannot create directory " + dir + ": " + std::strerror(ENOTDIR));
  }
  const std::size_t slash = dir.find_last_of('/');
  if (slash != std::string::npos && slash > 0) make_private_dirs(dir.substr(0, slash));
  if (::mkdir(dir.c_str(), 0700) != 0) {
    if (errno == EEXIST) return;  // made meanwhile by another writer
    throw RuntimeError("cannot create directory " + dir + ": " + std::strerror(errno));
  }
  // The umask may have taken bits the owner needs.
  ::chmod(dir.c_str(), 0700);
}

std::string random_hex(std::size_t bytes) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::uint8_t buffer[64];
  std::string out;
  out.reserve(2 * bytes);
  while (bytes > 0) {
    const std::size_t want = bytes < sizeof buffer ? bytes : sizeof buffer;
    const ssize_t got = ::getrandom(buffer, want, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      throw RuntimeError(std::string("cannot read random bytes: ") + std::strerror(errno));
    }
    for (ssize_t i = 0; i < got; ++i) {
      out += kHex[buffer[i] >> 4];
      out += kHex[buffer[i] & 0xf];
    }
    bytes -= static_cast<std::size_t>(got);
  }
  return out;
}

LockedTemp::LockedTemp(const std::string& dir, std::string_view prefix, std::string target)
    : target_(std::move(target)) {
  int err = EEXIST;
  for (int attempt = 0; attempt < 16; ++attempt) {
    path_ = dir + "/" + std::string(prefix) + random_hex(16);
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ < 0) {
      err = errno;
      if (err == EEXIST) continue;
      break;
    }
    ::fchmod(fd_, 0600);  // whatever the umask took
    // The clean-up may have taken the file between its creation and the lock (it cannot tell
    // it from an abandoned one); then the name is gone and a new one is tried.
    struct stat locked {};
    struct stat named {};
    if (lock_exclusive(fd_, true) == 0 && ::fstat(fd_, &locked) == 0 &&
        ::lstat(path_.c_str(), &named) == 0 && same_file(locked, named)) {
      return;
    }
    err = errno;
    ::close(fd_);
    fd_ = -1;
  }
  path_.clear();
  throw RuntimeError("cannot create a temporary file in " + dir + " for " + target_ + ": " +
                     std::strerror(err));
}

LockedTemp::~LockedTemp() {
  if (!placed_ && !path_.empty()) {
    ::unlink(path_.c_str());
    for (const std::string& suffix : companions_) ::unlink((path_ + suffix).c_str());
  }
  // Closing the descriptor releases the lock, after the names are gone.
  if (fd_ >= 0) ::close(fd_);
}

void LockedTemp::remove_with(std::initializer_list<std::string_view> suffixes) {
  for (std::string_view s : suffixes) companions_.emplace_back(s);
}

void LockedTemp::fail(int err) const {
  throw RuntimeError("cannot write " + target_ + ": " + std::strerror(err));
}

void LockedTemp::rename_into_place() {
  if (::rename(path_.c_str(), target_.c_str()) != 0) fail(errno);
  placed_ = true;
}

bool LockedTemp::link_into_place() {
  if (::link(path_.c_str(), target_.c_str()) == 0) {
    // Both names lead to the file now; the destructor removes the temporary one.
    return true;
  }
  int err = errno;
  if (err == EEXIST) return false;
  // File systems without hard links: a rename that refuses to replace does the same.
  if (err == EPERM || err == ENOTSUP || err == ENOSYS || err == EMLINK) {
    if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, target_.c_str(), RENAME_NOREPLACE) == 0) {
      placed_ = true;
      return true;
    }
    err = errno;
    if (err == EEXIST) return false;
  }
  fail(err);
}

void remove_abandoned_temporaries(const std::string& dir, std::string_view prefix,
                                  std::initializer_list<std::string_view> companion_suffixes) {
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return;
  const int dir_fd = ::dirfd(d);
  while (const dirent* entry = ::readdir(d)) {
    const std::string_view name = entry->d_name;
    if (!name.starts_with(prefix) || name.size() == prefix.size() ||
        ends_with_any(name, companion_suffixes)) {
      continue;
    }
    const int fd = ::openat(dir_fd, entry->d_name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) continue;
    struct stat locked {};
    struct stat named {};
    if (lock_exclusive(fd, false) == 0 && ::fstat(fd, &locked) == 0 && S_ISREG(locked.st_mode) &&
        ::fstatat(dir_fd, entry->d_name, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
        same_file(locked, named)) {
      ::unlinkat(dir_fd, entry->d_name, 0);
      for (std::string_view suffix : companion_suffixes) {
        ::unlinkat(dir_fd, (std::string(name) + std::string(suffix)).c_str(), 0);
      }
    }
    ::close(fd);
  }
  ::closedir(d);
}

}  // namespace korvalin_client::service::files
