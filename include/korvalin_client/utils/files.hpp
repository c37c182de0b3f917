// File helpers: atomic writes and names that must stay inside their directory.
//
// Files that others trust by their mere existence (complete results, experiment copies,
// chunk files, attachments) are written through AtomicFile or write_file_atomic: the bytes go
// to a temporary file in the same directory, which is renamed over the final name only once
// everything was written. A crash, an error or an interruption therefore never leaves a torn
// or empty file under the final name. (This guards against the process dying; it does not
// fsync, so it does not promise durability across a power loss.)
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::utils {

class AtomicFile {
 public:
  // Opens a new temporary file beside `path`. A RuntimeError naming `path` if impossible.
  explicit AtomicFile(std::string path);
  // Removes the temporary file unless commit() succeeded.
  ~AtomicFile();
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  void write(const void* data, std::size_t size);
  void write(std::span<const std::uint8_t> bytes) { write(bytes.data(), bytes.size()); }
  void write(std::string_view text) { write(text.data(), text.size()); }

  // Closes the temporary file and renames it to the final path.
  void commit();

  const std::string& path() const { return path_; }

 private:
  [[noreturn]] void fail(const std::string& what);

  std::string path_;
  std::string temp_path_;
  int fd_ = -1;
  bool committed_ = false;
};

// Writes `bytes` to `path` atomically (see above).
void write_file_atomic(const std::string& path, std::span<const std::uint8_t> bytes);

// Reads a whole file. A RuntimeError naming the file if it cannot be read.
Bytes read_file(const std::string& path);

// Whether anything (file, directory, link) exists at `path`.
bool path_exists(const std::string& path);

// The longest name a directory entry may have on the file systems we run on (NAME_MAX).
inline constexpr std::size_t kMaxNameBytes = 255;

// Checks that `name`, which came from the service, a caller or a file, names a plain entry
// directly inside a directory: not empty, not absolute, no "/" or "\", not "." or "..", no
// NUL, and at most kMaxNameBytes bytes. Other dots are fine ("report..final.csv").
// Otherwise a RuntimeError naming it and `what` (e.g. "attachment"). Returns `name` unchanged.
const std::string& check_child_name(const std::string& name, std::string_view what);

// Like check_child_name, but `name` may hold "/" between its parts, each of which keeps the
// rules of an entry: "site/lab-a" names a directory two levels below, so that dir + "/" + name
// stays below dir, and no other accepted name gives the same path ("site//lab-a", "site/./lab-a"
// and "site/lab-a/" are refused).
const std::string& check_relative_path(const std::string& name, std::string_view what);

// Creates `dir` and its missing parents; a directory that appears meanwhile is fine.
// Errors (a file in the way, no permission) are a RuntimeError naming the path.
void make_dirs(const std::string& dir);

}  // namespace korvalin_client::utils
