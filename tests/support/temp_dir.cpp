#include "support/temp_dir.hpp"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace korvalin_client::testing {
namespace {

void remember(const char* name, std::string& old, bool& had) {
  const char* v = std::getenv(name);
  had = v != nullptr;
  if (had) old = v;
}

void restore(const char* name, const std::string& old, bool had) {
  if (had) {
    ::setenv(name, old.c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

}  // namespace

TempCacheRoot::TempCacheRoot() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "korvalin-test-XXXXXX").string();
  if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
  remember("KORVALIN_CACHE_DIR", old_cache_, had_cache_);
  remember("KORVALIN_STORAGE_DIR", old_storage_, had_storage_);
  ::setenv("KORVALIN_CACHE_DIR", cache_root().c_str(), 1);
  ::setenv("KORVALIN_STORAGE_DIR", storage_root().c_str(), 1);
}

TempCacheRoot::~TempCacheRoot() {
  restore("KORVALIN_CACHE_DIR", old_cache_, had_cache_);
  restore("KORVALIN_STORAGE_DIR", old_storage_, had_storage_);
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

}  // namespace korvalin_client::testing
