#include "korvalin_client/service/executor_lease.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::service {
namespace {

std::string error_text(int error) { return std::strerror(error); }

}  // namespace

ExecutorLease::ExecutorLease(std::string storage_dir) {
  std::error_code ec;
  std::filesystem::create_directories(storage_dir, ec);
  if (ec) {
    throw RuntimeError("cannot create the storage directory " + storage_dir + ": " + ec.message());
  }
  path_ = std::move(storage_dir) + "/" + kFileName;
}

ExecutorLease::~ExecutorLease() { release(); }

bool ExecutorLease::try_acquire() {
  if (fd_ >= 0) return true;
  const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0)
    throw RuntimeError("cannot open the executor lock " + path_ + ": " + error_text(errno));
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(fd);
    if (error == EWOULDBLOCK || error == EINTR) return false;
    throw RuntimeError("cannot lock the executor lock " + path_ + ": " + error_text(error));
  }
  fd_ = fd;
  // Who holds it, for people: best effort, the lock alone decides.
  char host[256] = {};
  ::gethostname(host, sizeof host - 1);
  const std::string who = "pid " + std::to_string(::getpid()) + " on " + host + "\n";
  if (::ftruncate(fd_, 0) == 0) {
    [[maybe_unused]] const ssize_t n = ::pwrite(fd_, who.data(), who.size(), 0);
  }
  return true;
}

void ExecutorLease::release() {
  if (fd_ < 0) return;
  [[maybe_unused]] const int truncated = ::ftruncate(fd_, 0);
  ::close(fd_);  // drops the lock
  fd_ = -1;
}

std::string ExecutorLease::holder() const {
  const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return "";
  // A shared lock granted means nobody holds the lease (a dead holder leaves its text behind).
  if (fd_ < 0 && ::flock(fd, LOCK_SH | LOCK_NB) == 0) {
    ::close(fd);
    return "";
  }
  char buf[300];
  const ssize_t n = ::pread(fd, buf, sizeof buf - 1, 0);
  ::close(fd);
  std::string text = n > 0 ? std::string(buf, static_cast<std::size_t>(n)) : std::string();
  while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
  return text;
}

}  // namespace korvalin_client::service
