#include "korvalin_client/utils/files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace korvalin_client::utils {
namespace {

std::string errno_text(int err) { return std::strerror(err); }

std::string temp_name_for(const std::string& path) {
  static std::atomic<std::uint64_t> counter{0};
  return path + ".tmp." + std::to_string(::getpid()) + "." +
         std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
}

}  // namespace

AtomicFile::AtomicFile(std::string path) : path_(std::move(path)) {
  for (int attempt = 0; attempt < 16; ++attempt) {
    temp_path_ = temp_name_for(path_);
    fd_ = ::open(temp_path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd_ >= 0) return;
    if (errno != EEXIST) break;
  }
  const int err = errno;
  throw RuntimeError("cannot create a file beside " + path_ + ": " + errno_text(err));
}

AtomicFile::~AtomicFile() {
  if (fd_ >= 0) ::close(fd_);
  if (!committed_) ::unlink(temp_path_.c_str());
}

void AtomicFile::fail(const std::string& what) {
  const int err = errno;
  throw RuntimeError("cannot " + what + " " + path_ + ": " + errno_text(err));
}

void AtomicFile::write(const void* data, std::size_t size) {
  if (fd_ < 0) throw RuntimeError("cannot write " + path_ + ": the file is already closed");
  const char* p = static_cast<const char*>(data);
  while (size > 0) {
    // Writes are split so that one call never exceeds what write(2) accepts at once.
    const std::size_t step = size < (std::size_t{1} << 30) ? size : (std::size_t{1} << 30);
    const ssize_t n = ::write(fd_, p, step);
    if (n < 0) {
      if (errno == EINTR) continue;
      fail("write");
    }
    p += n;
    size -= static_cast<std::size_t>(n);
  }
}

void AtomicFile::commit() {
  if (fd_ < 0) throw RuntimeError("cannot write " + path_ + ": the file is already closed");
  const int fd = fd_;
  fd_ = -1;
  if (::close(fd) != 0) fail("write");
  if (::rename(temp_path_.c_str(), path_.c_str()) != 0) fail("write");
  committed_ = true;
}

void write_file_atomic(const std::string& path, std::span<const std::uint8_t> bytes) {
  AtomicFile file(path);
  file.write(bytes);
  file.commit();
}

Bytes read_file(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    const int err = errno;
    throw RuntimeError("cannot read " + path + ": " + errno_text(err));
  }
  struct stat st {};
  Bytes out;
  // Read straight into a buffer of the file's size; grow only if the file grew meanwhile.
  out.resize(::fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<std::size_t>(st.st_size)
                                                     : std::size_t{1} << 16);
  std::size_t got = 0;
  std::uint8_t probe[4096];
  for (;;) {
    const bool full = got == out.size();
    const ssize_t n = full ? ::read(fd, probe, sizeof probe)
                           : ::read(fd, out.data() + got, out.size() - got);
    if (n == 0) break;
    if (n > 0 && full) {
      out.insert(out.end(), probe, probe + n);
      got = out.size();
      continue;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      const int err = errno;
      ::close(fd);
      throw RuntimeError("cannot read " + path + ": " + errno_text(err));
    }
    got += static_cast<std::size_t>(n);
  }
  ::close(fd);
  out.resize(got);
  return out;
}

bool path_exists(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0;
}

namespace {

// `name` as a message shows it: control bytes escaped (a NUL would end the message), and a
// very long name cut short.
std::string shown_name(const std::string& name) {
  constexpr std::size_t kShown = 300;
  std::string out;
  for (std::size_t i = 0; i < name.size() && i < kShown; ++i) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7f) {
      static const char hex[] = "0123456789abcdef";
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  if (name.size() > kShown) out += "...";
  return out;
}

// The rules every name below a directory keeps; `one_entry` also refuses "/" in it.
void check_below(const std::string& name, std::string_view what, bool one_entry) {
  auto refuse = [&](const std::string& why) {
    throw RuntimeError("refusing " + std::string(what) + " name \"" + shown_name(name) +
                       "\": " + why);
  };
  if (name.empty()) refuse("it is empty");
  if (name.find('\0') != std::string::npos) refuse("it contains a NUL character");
  if (name.front() == '/') refuse("it is an absolute path");
  // Not a separator here, but one elsewhere: a name stays the same directory on every system.
  if (name.find('\\') != std::string::npos) refuse("it contains a backslash");
  if (one_entry && name.find('/') != std::string::npos) refuse("it contains a path separator");
  for (std::size_t start = 0;;) {
    const std::size_t slash = name.find('/', start);
    const std::string_view part = std::string_view(name).substr(
        start, slash == std::string::npos ? std::string::npos : slash - start);
    // "a//b", "a/" and "a/./b" would be the directory of another name, "a/b".
    if (part.empty()) refuse("it has an empty part (\"//\" or a \"/\" at the end)");
    if (part == "..") refuse("it has a \"..\" part, which leads out of the directory");
    if (part == ".") refuse("it has a \".\" part, which names the directory itself");
    // Dots elsewhere ("report..final.csv") are part of an ordinary name.
    if (part.size() > kMaxNameBytes) {
      refuse((one_entry ? "it is " : "a part of it is ") + std::to_string(part.size()) +
             " bytes long, more than the " + std::to_string(kMaxNameBytes) +
             " a file name may have");
    }
    if (slash == std::string::npos) break;
    start = slash + 1;
  }
}

}  // namespace

const std::string& check_child_name(const std::string& name, std::string_view what) {
  check_below(name, what, true);
  return name;
}

const std::string& check_relative_path(const std::string& name, std::string_view what) {
  check_below(name, what, false);
  return name;
}

void make_dirs(const std::string& dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  if (ec && !std::filesystem::is_directory(dir)) {
    throw RuntimeError("cannot create directory " + dir + ": " + ec.message());
  }
}

}  // namespace korvalin_client::utils
