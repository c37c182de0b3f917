// Where korvalin_client keeps its files on this machine.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace korvalin_client::utils {

// The cache root of the service the client is connected to: the base directory
// ($KORVALIN_CACHE_DIR when set and non-empty, else $XDG_CACHE_HOME/korvalin, else
// $HOME/.cache/korvalin), then "/services/" and the service's identity, so that each
// service's parameters and results stay apart. Without an identity (no service, or a test
// double) the base directory itself. Never ends in a separator (unless it is "/" itself). The
// directory is not created here. A RuntimeError when no home directory can be found, or when
// the identity could lead outside the base directory.
std::string get_cache_dir();

// The base directory of get_cache_dir(), the same for every service.
std::string get_cache_base_dir();

// Answers the identity of the service the client is connected to ("" when none). The
// connection manager installs one; null removes it.
void set_cache_scope_provider(std::function<std::string()> provider);

// The local storage root (data that is not a cache, such as the embedded service's store):
// $KORVALIN_STORAGE_DIR, else $XDG_DATA_HOME/korvalin, else $HOME/.local/share/korvalin;
// same rules as get_cache_dir().
std::string get_local_storage_dir();

// The local calendar date of `timestamp` (seconds since the epoch) formatted "%Y%m%d".
std::string local_date(std::int64_t timestamp);

// The local date and time of `timestamp` formatted "%Y-%m-%d %H:%M:%S".
std::string local_datetime(std::int64_t timestamp);

}  // namespace korvalin_client::utils
