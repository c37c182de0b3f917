#include "korvalin_client/utils/space_cache.hpp"

#include <sqlite3.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <string_view>

#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::utils {
namespace {

// The schema version this code writes, kept in PRAGMA user_version. A database of a newer
// version is refused; an older one is migrated in migrate().
constexpr int kSchemaVersion = 1;

constexpr int kBusyTimeoutMs = 10'000;
constexpr int kBusyPauseMs = 50;

// The most key writes the change journal remembers; a reader further behind reloads fully.
constexpr std::size_t kJournalLimit = std::size_t{1} << 16;

std::atomic<std::uint64_t> g_next_cache_id{1};

constexpr const char* kSelectRecord =
    "SELECT key, value, type, description, unit, updated FROM parameters";

constexpr const char* kCreateV1 = R"sql(
CREATE TABLE spaces (
  space_id     INTEGER PRIMARY KEY,
  last_updated INTEGER NOT NULL DEFAULT 0,
  last_removed INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE parameters (
  space_id    INTEGER NOT NULL,
  key         TEXT NOT NULL,
  value,
  type        TEXT NOT NULL,
  description,
  unit,
  updated     INTEGER NOT NULL,
  PRIMARY KEY (space_id, key)
) WITHOUT ROWID;
)sql";

std::string rebuild_hint() {
  return " (the file can be deleted; the cache is then rebuilt from the service)";
}

[[noreturn]] void fail(sqlite3* db, const std::string& path, const std::string& what) {
  const int code = db != nullptr ? sqlite3_errcode(db) : SQLITE_ERROR;
  std::string message = "space cache " + path + ": " + what + ": " +
                        (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
  const int primary = code & 0xff;
  if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) message += rebuild_hint();
  throw RuntimeError(message);
}

// Runs `sql`; `what` names it in an error (the statement itself by default).
void exec(sqlite3* db, const std::string& path, const char* sql, const char* what = nullptr) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(db, path, what != nullptr ? what : sql);
  }
}

// A prepared statement, finalized on scope exit.
class Statement {
 public:
  Statement(sqlite3* db, const std::string& path, std::string_view sql) : db_(db), path_(path) {
    if (sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()), 0, &stmt_, nullptr) !=
        SQLITE_OK) {
      fail(db, path, "cannot prepare a query");
    }
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* get() const { return stmt_; }

  void check(int rc, const char* what) const {
    if (rc != SQLITE_OK) fail(db_, path_, what);
  }

  // Text and blobs are bound SQLITE_STATIC: the caller keeps them alive until the next step.
  void bind_text(int i, std::string_view text) const {
    check(sqlite3_bind_text64(stmt_, i, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8),
          "cannot bind a text");
  }
  void bind_blob(int i, std::string_view bytes) const {
    check(sqlite3_bind_blob64(stmt_, i, bytes.data(), bytes.size(), SQLITE_STATIC),
          "cannot bind a value");
  }
  void bind_int(int i, std::int64_t v) const {
    check(sqlite3_bind_int64(stmt_, i, v), "cannot bind an integer");
  }

  // Steps once: true for a row, false when done.
  bool step() const {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail(db_, path_, "query failed");
  }

  void run() const {
    step();
    sqlite3_reset(stmt_);
  }

  std::string text(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p == nullptr ? std::string() : std::string(p, sqlite3_column_bytes(stmt_, col));
  }
  std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }

 private:
  sqlite3* db_;
  const std::string& path_;
  sqlite3_stmt* stmt_ = nullptr;
};

// A BEGIN IMMEDIATE transaction, rolled back on scope exit unless committed.
class WriteTransaction {
 public:
  WriteTransaction(sqlite3* db, const std::string& path) : db_(db), path_(path) {
    exec(db, path, "BEGIN IMMEDIATE");
  }
  ~WriteTransaction() {
    // SQLite may already have rolled back by itself after some errors (disk full, I/O).
    if (!committed_ && sqlite3_get_autocommit(db_) == 0) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  WriteTransaction(const WriteTransaction&) = delete;
  WriteTransaction& operator=(const WriteTransaction&) = delete;

  void commit() {
    exec(db_, path_, "COMMIT");
    committed_ = true;
  }

 private:
  sqlite3* db_;
  const std::string& path_;
  bool committed_ = false;
};

int read_user_version(sqlite3* db, const std::string& path) {
  Statement st(db, path, "PRAGMA user_version");
  return st.step() ? static_cast<int>(st.integer(0)) : 0;
}

// Brings the schema from `version` up to kSchemaVersion inside the caller's transaction.
// A later version adds its step here: `if (version < 2) { ALTER TABLE ...; }`.
void migrate(sqlite3* db, const std::string& path, int version) {
  if (version < 1) exec(db, path, kCreateV1, "cannot create the tables");
  exec(db, path, ("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
}

[[noreturn]] void too_new(const std::string& path, int version) {
  throw RuntimeError("space cache " + path + ": written by a newer version of this library " +
                     "(schema " + std::to_string(version) + ", this one reads up to " +
                     std::to_string(kSchemaVersion) + ")" + rebuild_hint());
}

void prepare_schema(sqlite3* db, const std::string& path) {
  int version = read_user_version(db, path);
  if (version == kSchemaVersion) return;
  if (version > kSchemaVersion) too_new(path, version);
  WriteTransaction tx(db, path);
  // Another process may have created or migrated the schema while we waited for the lock.
  version = read_user_version(db, path);
  if (version > kSchemaVersion) too_new(path, version);
  if (version <= 0) {
    Statement tables(db, path, "SELECT count(*) FROM sqlite_master");
    if (tables.step() && tables.integer(0) > 0) {
      throw RuntimeError("space cache " + path + ": not a space cache database" + rebuild_hint());
    }
  }
  if (version < kSchemaVersion) migrate(db, path, version);
  tx.commit();
}

// Binds `v` keeping its kind; structured and other values are JSON in a BLOB, dumped into
// `scratch`, which must outlive the next step.
void bind_value(const Statement& st, int i, const Value& v, std::string& scratch) {
  switch (v.type()) {
    case Value::value_t::null:
    case Value::value_t::discarded:
      st.check(sqlite3_bind_null(st.get(), i), "cannot bind a value");
      return;
    case Value::value_t::string:
      st.bind_text(i, v.get_ref<const std::string&>());
      return;
    case Value::value_t::number_integer:
      st.bind_int(i, v.get<std::int64_t>());
      return;
    case Value::value_t::number_unsigned: {
      const auto u = v.get<std::uint64_t>();
      if (u <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        st.bind_int(i, static_cast<std::int64_t>(u));
        return;
      }
      break;  // too large for an INTEGER column: stored as JSON
    }
    case Value::value_t::number_float:
      st.check(sqlite3_bind_double(st.get(), i, v.get<double>()), "cannot bind a value");
      return;
    default:
      break;
  }
  scratch = v.dump();
  st.bind_blob(i, scratch);
}

Value column_value(const Statement& st, int col, const std::string& path) {
  sqlite3_stmt* s = st.get();
  switch (sqlite3_column_type(s, col)) {
    case SQLITE_INTEGER:
      return sqlite3_column_int64(s, col);
    case SQLITE_FLOAT:
      return sqlite3_column_double(s, col);
    case SQLITE_TEXT:
      return st.text(col);
    case SQLITE_BLOB: {
      const auto* p = static_cast<const char*>(sqlite3_column_blob(s, col));
      const auto n = static_cast<std::size_t>(sqlite3_column_bytes(s, col));
      Value v = Value::parse(p, p + n, nullptr, /*allow_exceptions=*/false);
      if (v.is_discarded()) {
        throw RuntimeError("space cache " + path + ": a stored value is not valid JSON" +
                           rebuild_hint());
      }
      return v;
    }
    default:
      return nullptr;
  }
}

SpaceCache::Record read_record(const Statement& st, const std::string& path) {
  SpaceCache::Record r;
  r.key = st.text(0);
  r.value = column_value(st, 1, path);
  r.type = st.text(2);
  r.description = column_value(st, 3, path);
  r.unit = column_value(st, 4, path);
  r.updated = st.integer(5);
  return r;
}

std::int64_t read_data_version(sqlite3* db, const std::string& path) {
  Statement st(db, path, "PRAGMA data_version");
  return st.step() ? st.integer(0) : 0;
}

[[noreturn]] void length_mismatch(const char* name, std::size_t n, std::size_t keys) {
  throw ValueError("update_cache: " + std::to_string(keys) + " keys but " + std::to_string(n) +
                   " " + name);
}

}  // namespace

std::string normalize_key(const std::string& key) {
  if (!key.empty() && key.front() == '/') return key;
  return "/" + key;
}

SpaceCache::SpaceCache(const std::string& group_name, std::int64_t space_id)
    : group_name_(group_name), space_id_(space_id), id_(g_next_cache_id.fetch_add(1)) {
  const std::string dir = get_cache_dir() + "/" + check_relative_path(group_name, "group");
  path_ = dir + "/space_cache.sqlite3";
  // SQLite opens no path longer than its VFS allows, and would only say "unable to open
  // database file".
  const sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
  if (vfs != nullptr && path_.size() > static_cast<std::size_t>(vfs->mxPathname)) {
    throw RuntimeError("space cache " + path_ + ": cannot open: the path is " +
                       std::to_string(path_.size()) + " bytes long, more than the " +
                       std::to_string(vfs->mxPathname) +
                       " SQLite opens; a shorter group name or cache root would do");
  }
  make_dirs(dir);

  const int rc =
      sqlite3_open_v2(path_.c_str(), &db_,
                      // One thread at a time uses a SpaceCache: no per-call mutex needed.
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (rc != SQLITE_OK) fail(db_, path_, "cannot open");
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    // The first statement reads the file header: garbage at the path fails here. Switching
    // a new file to WAL needs it alone for a moment, and SQLite answers "locked" at once,
    // without waiting in its busy handler, while another program opens the same new file:
    // programs started together wait their turn here, as long as the busy timeout.
    for (int waited = 0;; waited += kBusyPauseMs) {
      const int code = sqlite3_exec(db_, "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
      if (code == SQLITE_OK) break;
      if ((code & 0xff) != SQLITE_BUSY || waited >= kBusyTimeoutMs) {
        fail(db_, path_, "PRAGMA journal_mode = WAL");
      }
      env().sleep(kBusyPauseMs / 1000.0);
    }
    exec(db_, path_, "PRAGMA synchronous = NORMAL");
    prepare_schema(db_, path_);
    data_version_ = read_data_version(db_, path_);
  } catch (...) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
    throw;
  }
}

SpaceCache::~SpaceCache() { sqlite3_close_v2(db_); }

Value SpaceCache::get_cache_info() const {
  // One statement, so both times come from one snapshot.
  Statement st(db_, path_,
               "SELECT (SELECT last_updated FROM spaces WHERE space_id = ?1),"
               "       (SELECT last_removed FROM spaces WHERE space_id = ?1)");
  st.bind_int(1, space_id_);
  st.step();
  Value info = Value::object();
  info["space_id"] = space_id_;
  info["last_updated"] = st.integer(0);  // NULL (no row yet) reads as 0
  info["last_removed"] = st.integer(1);
  info["path"] = path_;
  return info;
}

std::int64_t SpaceCache::count() const {
  Statement st(db_, path_, "SELECT count(*) FROM parameters WHERE space_id = ?1");
  st.bind_int(1, space_id_);
  return st.step() ? st.integer(0) : 0;
}

void SpaceCache::update_cache(const std::vector<std::string>& keys,
                              const std::vector<Value>& values,
                              const std::vector<std::string>& types,
                              const std::vector<Value>& descriptions,
                              const std::vector<Value>& units, std::int64_t timestamp) {
  const std::size_t n = keys.size();
  if (values.size() != n) length_mismatch("values", values.size(), n);
  if (types.size() != n) length_mismatch("types", types.size(), n);
  if (descriptions.size() != n) length_mismatch("descriptions", descriptions.size(), n);
  if (units.size() != n) length_mismatch("units", units.size(), n);

  WriteTransaction tx(db_, path_);
  note_external_changes();
  // The keys go to the change journal only when it will keep them (see journal_write).
  const bool journaled = journal_.size() + n <= kJournalLimit;
  std::vector<std::string> written;
  if (journaled) written.reserve(n);
  {
    Statement insert(db_, path_,
                     "INSERT OR REPLACE INTO parameters"
                     " (space_id, key, value, type, description, unit, updated)"
                     " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    insert.bind_int(1, space_id_);
    insert.bind_int(7, timestamp);
    // Bound SQLITE_STATIC: each buffer lives until the step of its row is done.
    std::string key_buf, value_buf, description_buf, unit_buf;
    for (std::size_t i = 0; i < n; ++i) {
      const std::string& key = keys[i];
      if (journaled) {
        written.push_back(normalize_key(key));
        insert.bind_text(2, written.back());
      } else if (!key.empty() && key.front() == '/') {
        insert.bind_text(2, key);
      } else {
        key_buf = normalize_key(key);
        insert.bind_text(2, key_buf);
      }
      try {
        bind_value(insert, 3, values[i], value_buf);
        bind_value(insert, 5, descriptions[i], description_buf);
        bind_value(insert, 6, units[i], unit_buf);
      } catch (const nlohmann::json::exception& e) {
        throw ValueError("update_cache: the value or metadata of " + normalize_key(key) +
                         " cannot be stored: " + e.what());
      }
      insert.bind_text(4, types[i]);
      insert.run();
    }
    sqlite3_clear_bindings(insert.get());
  }
  Statement mark(db_, path_,
                 "INSERT INTO spaces (space_id, last_updated) VALUES (?1, ?2)"
                 " ON CONFLICT (space_id) DO UPDATE SET last_updated = excluded.last_updated");
  mark.bind_int(1, space_id_);
  mark.bind_int(2, timestamp);
  mark.run();
  tx.commit();
  if (journaled) {
    journal_write(written);
  } else {
    journal_overflow();
  }
}

void SpaceCache::remove_key(const std::string& key, std::int64_t timestamp) {
  const std::string full = normalize_key(key);
  WriteTransaction tx(db_, path_);
  note_external_changes();
  Statement remove(db_, path_, "DELETE FROM parameters WHERE space_id = ?1 AND key = ?2");
  remove.bind_int(1, space_id_);
  remove.bind_text(2, full);
  remove.run();
  Statement mark(db_, path_,
                 "INSERT INTO spaces (space_id, last_removed) VALUES (?1, ?2)"
                 " ON CONFLICT (space_id) DO UPDATE SET last_removed = excluded.last_removed");
  mark.bind_int(1, space_id_);
  mark.bind_int(2, timestamp);
  mark.run();
  tx.commit();
  journal_write({full});
}

std::vector<SpaceCache::Record> SpaceCache::load_all() const {
  Statement st(db_, path_, std::string(kSelectRecord) + " WHERE space_id = ?1 ORDER BY key");
  st.bind_int(1, space_id_);
  std::vector<Record> records;
  while (st.step()) records.push_back(read_record(st, path_));
  return records;
}

std::optional<SpaceCache::Record> SpaceCache::load_one(const std::string& normalized_key) const {
  Statement st(db_, path_, std::string(kSelectRecord) + " WHERE space_id = ?1 AND key = ?2");
  st.bind_int(1, space_id_);
  st.bind_text(2, normalized_key);
  if (!st.step()) return std::nullopt;
  return read_record(st, path_);
}

SpaceCache::Contents SpaceCache::read_all() const {
  note_external_changes();
  return Contents(this, id_, generation_);
}

void SpaceCache::note_external_changes() const {
  const std::int64_t version = read_data_version(db_, path_);
  if (version != data_version_) {
    // Another connection committed: what it changed is unknown here.
    data_version_ = version;
    ++generation_;
    journal_.clear();
    journal_base_ = generation_;
  }
}

void SpaceCache::journal_write(const std::vector<std::string>& normalized_keys) {
  if (journal_.size() + normalized_keys.size() > kJournalLimit) {
    journal_overflow();
    return;
  }
  ++generation_;
  for (const auto& key : normalized_keys) journal_.emplace_back(generation_, key);
}

void SpaceCache::journal_overflow() {
  // Too much changed to remember: readers further behind than now load everything.
  ++generation_;
  journal_.clear();
  journal_base_ = generation_;
}

std::optional<SpaceCache::Changes> SpaceCache::changes_between(std::uint64_t from,
                                                              std::uint64_t to) const {
  note_external_changes();
  if (to != generation_ || from < journal_base_ || from > to) return std::nullopt;
  std::set<std::string> keys;
  for (auto it = journal_.rbegin(); it != journal_.rend() && it->first > from; ++it) {
    keys.insert(it->second);
  }
  Changes changes;
  Statement st(db_, path_, std::string(kSelectRecord) + " WHERE space_id = ?1 AND key = ?2");
  st.bind_int(1, space_id_);
  for (const auto& key : keys) {
    st.bind_text(2, key);
    if (st.step()) {
      changes.changed.push_back(read_record(st, path_));
    } else {
      changes.removed.push_back(key);
    }
    sqlite3_reset(st.get());
  }
  return changes;
}

// ---- Contents -----------------------------------------------------------------------------

const std::vector<SpaceCache::Record>& SpaceCache::Contents::records() const {
  if (!records_) records_ = cache_->load_all();
  return *records_;
}

std::optional<SpaceCache::Record> SpaceCache::Contents::find(const std::string& key) const {
  return cache_->load_one(normalize_key(key));
}

std::optional<SpaceCache::Changes> SpaceCache::Contents::changes_since(
    std::uint64_t generation) const {
  return cache_->changes_between(generation, generation_);
}

std::vector<std::string> SpaceCache::fuzzy_query(const std::optional<std::string>& word) const {
  // instr() rather than LIKE, so "%" and "_" in the word match themselves; lower() folds
  // ASCII letters only.
  Statement st(db_, path_,
               word ? "SELECT key FROM parameters WHERE space_id = ?1"
                      " AND instr(lower(key), lower(?2)) > 0 ORDER BY key"
                    : "SELECT key FROM parameters WHERE space_id = ?1 ORDER BY key");
  st.bind_int(1, space_id_);
  if (word) st.bind_text(2, *word);
  std::vector<std::string> keys;
  while (st.step()) keys.push_back(st.text(0));
  return keys;
}

}  // namespace korvalin_client::utils
