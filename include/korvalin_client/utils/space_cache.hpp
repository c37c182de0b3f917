// SpaceCache: the persistent local copy of one space's parameters.
//
// All spaces of a device group share one SQLite database, "space_cache.sqlite3" in the
// group's cache directory (cache root + "/" + group name). The database runs in WAL mode with
// a busy timeout, so several processes and several SpaceCache objects may use it at once;
// each writing operation is one transaction. The on-disk form is described in
// docs/parameter-cache.md.
//
// Keys are full parameter keys beginning with "/"; a key given without the leading "/" is
// taken as the same key with it. Values are stored as they are given (text, integer, real,
// null stay what they are; booleans, lists and mappings are stored as JSON and come back
// equal).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvalin_client/utils/value.hpp"

struct sqlite3;

namespace korvalin_client::utils {

class SpaceCache {
 public:
  // One cached parameter.
  struct Record {
    std::string key;      // full key, beginning with "/"
    Value value;          // the serialised value as the service gave it
    std::string type;     // its type name
    Value description;    // optional metadata, null unless given
    Value unit;           // optional metadata, null unless given
    std::int64_t updated = 0;  // the timestamp of the update_cache call that wrote it
  };

  // Opens (creating when missing) the cache of space `space_id` of group `group_name`.
  // A RuntimeError naming the database file when it cannot be opened or is not a cache
  // database of a version this library reads.
  SpaceCache(const std::string& group_name, std::int64_t space_id);
  ~SpaceCache();
  SpaceCache(const SpaceCache&) = delete;
  SpaceCache& operator=(const SpaceCache&) = delete;

  // Bookkeeping: {"space_id", "last_updated" (0 until the first update_cache),
  // "last_removed" (0 until the first remove_key), "count" (cached keys), "path"}.
  // "last_updated" moves only with update_cache: a sync interrupted between its removals and
  // its update therefore starts again from the same point and repairs the cache.
  Value get_cache_info() const;

  // Writes (inserts or replaces) the given keys with their values, types and the two metadata
  // columns, and sets "last_updated" to `timestamp`, all in one transaction. The five lists
  // must have the same length (ValueError otherwise); empty lists still set "last_updated".
  void update_cache(const std::vector<std::string>& keys, const std::vector<Value>& values,
                    const std::vector<std::string>& types, const std::vector<Value>& descriptions,
                    const std::vector<Value>& units, std::int64_t timestamp);

  // Removes a key (absent keys are fine) and records `timestamp` as "last_removed".
  void remove_key(const std::string& key, std::int64_t timestamp);

  // Every cached parameter, ordered by key.
  std::vector<Record> read_all() const;

  // The keys containing `word` (case-insensitive for ASCII letters), ordered by key; a null
  // word gives every key.
  std::vector<std::string> fuzzy_query(const std::optional<std::string>& word) const;

  const std::string& group_name() const { return group_name_; }
  std::int64_t space_id() const { return space_id_; }
  // The database file.
  const std::string& path() const { return path_; }

 private:
  std::string group_name_;
  std::int64_t space_id_;
  std::string path_;
  sqlite3* db_ = nullptr;
};

// The canonical form of a parameter key: `key` with a leading "/" added when missing.
std::string normalize_key(const std::string& key);

}  // namespace korvalin_client::utils
