// TempCacheRoot: a fresh temporary directory installed as the cache and storage root
// ($KORVALIN_CACHE_DIR, $KORVALIN_STORAGE_DIR) for the lifetime of a test, then removed.
#pragma once

#include <string>

namespace korvalin_client::testing {

class TempCacheRoot {
 public:
  TempCacheRoot();
  ~TempCacheRoot();
  TempCacheRoot(const TempCacheRoot&) = delete;
  TempCacheRoot& operator=(const TempCacheRoot&) = delete;

  // The temporary directory; the cache root is path() + "/cache", storage path() + "/data".
  const std::string& path() const { return path_; }
  std::string cache_root() const { return path_ + "/cache"; }
  std::string storage_root() const { return path_ + "/data"; }

 private:
  std::string path_;
  std::string old_cache_;
  std::string old_storage_;
  bool had_cache_ = false;
  bool had_storage_ = false;
};

}  // namespace korvalin_client::testing
