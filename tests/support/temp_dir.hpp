// TempCacheRoot: a fresh temporary directory installed as the cache and storage root
// ($KORVALIN_CACHE_DIR, $KORVALIN_STORAGE_DIR) for the lifetime of a test, then removed.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace korvalin_client::testing {

class TempCacheRoot {
 public:
  TempCacheRoot() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "korvalin-test-XXXXXX").string();
    if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    ::setenv("KORVALIN_CACHE_DIR", cache_root().c_str(), 1);
    ::setenv("KORVALIN_STORAGE_DIR", storage_root().c_str(), 1);
  }
  ~TempCacheRoot() {
    restore("KORVALIN_CACHE_DIR", old_cache_);
    restore("KORVALIN_STORAGE_DIR", old_storage_);
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempCacheRoot(const TempCacheRoot&) = delete;
  TempCacheRoot& operator=(const TempCacheRoot&) = delete;

  // The temporary directory; the cache root is path() + "/cache", storage path() + "/data".
  const std::string& path() const { return path_; }
  std::string cache_root() const { return path_ + "/cache"; }
  std::string storage_root() const { return path_ + "/data"; }

 private:
  static std::optional<std::string> get(const char* name) {
    const char* v = std::getenv(name);
    return v ? std::optional<std::string>(v) : std::nullopt;
  }
  static void restore(const char* name, const std::optional<std::string>& old) {
    old ? ::setenv(name, old->c_str(), 1) : ::unsetenv(name);
  }

  std::optional<std::string> old_cache_ = get("KORVALIN_CACHE_DIR");
  std::optional<std::string> old_storage_ = get("KORVALIN_STORAGE_DIR");
  std::string path_;
};

}  // namespace korvalin_client::testing
