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

  // What changed in a cache between two reads of it (see Contents::changes_since).
  struct Changes {
    std::vector<Record> changed;        // keys written (added or replaced), ordered by key
    std::vector<std::string> removed;   // keys removed, ordered by key
  };

  // The contents of the cache as read_all() returns them: every record, ordered by key, read
  // the first time they are needed. A reader that loaded an earlier Contents of the same
  // SpaceCache object can instead ask what changed since, and catch up in proportion to the
  // change rather than to the space. A Contents must not outlive its SpaceCache.
  class Contents {
   public:
    // Every record, ordered by key (read from the database on first use).
    const std::vector<Record>& records() const;
    std::vector<Record>::const_iterator begin() const { return records().begin(); }
    std::vector<Record>::const_iterator end() const { return records().end(); }
    std::size_t size() const { return records().size(); }
    bool empty() const { return records().empty(); }
    const Record& operator[](std::size_t i) const { return records()[i]; }

    // One record by key, read on its own; nullopt when the key is not cached.
    std::optional<Record> find(const std::string& key) const;

    // Identifies the SpaceCache object (unique within the process) and its state when this
    // Contents was taken.
    std::uint64_t source() const { return source_; }
    std::uint64_t generation() const { return generation_; }

    // The keys written and removed between `generation` (of an earlier Contents from the same
    // source) and this one. nullopt when that is not known: another connection or process
    // wrote to the cache meanwhile, this Contents is no longer the latest, or the change
    // journal does not reach back that far.
    std::optional<Changes> changes_since(std::uint64_t generation) const;

   private:
    friend class SpaceCache;
    Contents(const SpaceCache* cache, std::uint64_t source, std::uint64_t generation)
        : cache_(cache), source_(source), generation_(generation) {}

    const SpaceCache* cache_;
    std::uint64_t source_;
    std::uint64_t generation_;
    mutable std::optional<std::vector<Record>> records_;
  };

  // Opens (creating when missing) the cache of space `space_id` of group `group_name`.
  // A RuntimeError naming the database file when it cannot be opened or is not a cache
  // database of a version this library reads, and one naming the group, before anything is
  // created, when `group_name` cannot name a directory below the cache root
  // (utils::check_relative_path) or makes the database's path longer than SQLite opens.
  SpaceCache(const std::string& group_name, std::int64_t space_id);
  ~SpaceCache();
  SpaceCache(const SpaceCache&) = delete;
  SpaceCache& operator=(const SpaceCache&) = delete;

  // Bookkeeping: {"space_id", "last_updated" (0 until the first update_cache),
  // "last_removed" (0 until the first remove_key), "path"}. Cheap: it does not touch the
  // parameters. "last_updated" moves only with update_cache: a sync interrupted between its
  // removals and its update therefore starts again from the same point and repairs the cache.
  Value get_cache_info() const;

  // How many parameters are cached (counts them).
  std::int64_t count() const;

  // Writes (inserts or replaces) the given keys with their values, types and the two metadata
  // columns, and sets "last_updated" to `timestamp`, all in one transaction. The five lists
  // must have the same length (ValueError otherwise); empty lists still set "last_updated".
  void update_cache(const std::vector<std::string>& keys, const std::vector<Value>& values,
                    const std::vector<std::string>& types, const std::vector<Value>& descriptions,
                    const std::vector<Value>& units, std::int64_t timestamp);

  // Removes a key (absent keys are fine) and records `timestamp` as "last_removed".
  void remove_key(const std::string& key, std::int64_t timestamp);

  // The cached parameters (see Contents).
  Contents read_all() const;

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

  // Change journal. Every write by this object moves `generation_` on and records the keys it
  // touched; a commit by another connection (seen through SQLite's data_version) also moves
  // it on but empties the journal, since what it changed is not known here.
  void note_external_changes() const;
  void journal_write(const std::vector<std::string>& normalized_keys);
  void journal_overflow();
  std::vector<Record> load_all() const;
  std::optional<Record> load_one(const std::string& normalized_key) const;
  std::optional<Changes> changes_between(std::uint64_t from, std::uint64_t to) const;

  std::uint64_t id_;
  mutable std::uint64_t generation_ = 0;
  mutable std::uint64_t journal_base_ = 0;  // the journal holds every write after this
  mutable std::int64_t data_version_ = -1;
  mutable std::vector<std::pair<std::uint64_t, std::string>> journal_;
};

// The canonical form of a parameter key: `key` with a leading "/" added when missing.
std::string normalize_key(const std::string& key);

}  // namespace korvalin_client::utils
