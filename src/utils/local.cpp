#include "korvalin_client/utils/local.hpp"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::utils {
namespace {

std::string env_text(const char* name) {
  const char* v = std::getenv(name);
  return v ? std::string(v) : std::string();
}

std::string home_dir() {
  std::string home = env_text("HOME");
  if (!home.empty()) return home;
  if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir && *pw->pw_dir) return pw->pw_dir;
  throw RuntimeError("cannot find the home directory: set $HOME or $KORVALIN_CACHE_DIR");
}

std::string strip_trailing_separators(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// `override_var` if set, else `xdg_var` + "/korvalin", else $HOME + `home_suffix` + "/korvalin".
std::string root_dir(const char* override_var, const char* xdg_var, const char* home_suffix) {
  std::string dir = env_text(override_var);
  if (dir.empty()) {
    const std::string xdg = env_text(xdg_var);
    dir = (xdg.empty() ? home_dir() + home_suffix : xdg) + "/korvalin";
  }
  return strip_trailing_separators(dir);
}

std::string format_local(std::int64_t timestamp, const char* pattern) {
  const std::time_t t = static_cast<std::time_t>(timestamp);
  std::tm tm{};
  if (::localtime_r(&t, &tm) == nullptr) {
    throw ValueError("timestamp " + std::to_string(timestamp) +
                     " cannot be converted to a local date");
  }
  char buf[64];
  const std::size_t n = std::strftime(buf, sizeof buf, pattern, &tm);
  return std::string(buf, n);
}

std::mutex& scope_mutex() {
  static std::mutex mutex;
  return mutex;
}

std::function<std::string()>& scope_provider() {
  static std::function<std::string()> provider;
  return provider;
}

bool usable_identity(const std::string& id) {
  if (id.empty() || id.size() > 128 || id == "." || id == "..") return false;
  return std::all_of(id.begin(), id.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
  });
}

}  // namespace

void set_cache_scope_provider(std::function<std::string()> provider) {
  std::lock_guard lock(scope_mutex());
  scope_provider() = std::move(provider);
}

std::string get_cache_base_dir() {
  return root_dir("KORVALIN_CACHE_DIR", "XDG_CACHE_HOME", "/.cache");
}

std::string get_cache_dir() {
  std::function<std::string()> provider;
  {
    std::lock_guard lock(scope_mutex());
    provider = scope_provider();
  }
  const std::string base = get_cache_base_dir();
  const std::string identity = provider ? provider() : std::string();
  if (identity.empty()) return base;
  if (!usable_identity(identity)) {
    std::string shown = identity.substr(0, 80);
    for (char& c : shown) {
      if (!std::isprint(static_cast<unsigned char>(c))) c = '?';
    }
    throw RuntimeError("the service reported an identity that cannot name a cache directory: \"" +
                       shown + "\"");
  }
  return (base == "/" ? std::string() : base) + "/services/" + identity;
}

std::string get_local_storage_dir() {
  return root_dir("KORVALIN_STORAGE_DIR", "XDG_DATA_HOME", "/.local/share");
}

std::string local_date(std::int64_t timestamp) { return format_local(timestamp, "%Y%m%d"); }

std::string local_datetime(std::int64_t timestamp) {
  return format_local(timestamp, "%Y-%m-%d %H:%M:%S");
}

}  // namespace korvalin_client::utils
