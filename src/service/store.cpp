// The Store: opening and creating its database, the schema and its migrations.
#include "korvalin_client/service/store.hpp"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"
#include "store_files.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

constexpr int kBusyTimeoutMs = 10'000;

constexpr const char* kCreateV1 = R"sql(
CREATE TABLE organizations (
  organization_id   INTEGER PRIMARY KEY,
  organization_name TEXT NOT NULL UNIQUE
);
CREATE TABLE users (
  user_id         INTEGER PRIMARY KEY,
  user_name       TEXT NOT NULL UNIQUE,
  organization_id INTEGER NOT NULL REFERENCES organizations
);
CREATE TABLE device_groups (
  device_group_id   INTEGER PRIMARY KEY,
  device_group_name TEXT NOT NULL UNIQUE,
  organization_id   INTEGER NOT NULL REFERENCES organizations,
  description       TEXT NOT NULL,
  hidden            INTEGER NOT NULL DEFAULT 0,
  create_time       INTEGER NOT NULL
);
CREATE TABLE rights (
  user_id         INTEGER NOT NULL REFERENCES users,
  device_group_id INTEGER NOT NULL REFERENCES device_groups,
  access          TEXT NOT NULL CHECK (access IN ('READ', 'WRITE')),
  PRIMARY KEY (user_id, device_group_id, access)
) WITHOUT ROWID;
CREATE TABLE spaces (
  space_id        INTEGER PRIMARY KEY,
  device_group_id INTEGER NOT NULL REFERENCES device_groups,
  space_name      TEXT NOT NULL,
  description     TEXT NOT NULL,
  hidden          INTEGER NOT NULL DEFAULT 0,
  create_time     INTEGER NOT NULL
);
CREATE INDEX spaces_by_group ON spaces (device_group_id, space_id);
-- Every parameter change; seq is the space's version after the change.
CREATE TABLE parameter_changes (
  seq           INTEGER PRIMARY KEY AUTOINCREMENT,
  space_id      INTEGER NOT NULL,
  key           TEXT NOT NULL,
  value,
  type,
  deleted       INTEGER NOT NULL,
  time          INTEGER NOT NULL,
  experiment_id,
  node_id,
  session_id
);
CREATE INDEX changes_by_time ON parameter_changes (space_id, time);
CREATE INDEX changes_by_key ON parameter_changes (space_id, key, seq);
-- The current state: the latest change per key, deleted keys absent.
CREATE TABLE parameters (
  space_id INTEGER NOT NULL,
  key      TEXT NOT NULL,
  value,
  type,
  seq      INTEGER NOT NULL,
  PRIMARY KEY (space_id, key)
) WITHOUT ROWID;
CREATE TABLE exp_folders (
  exp_folder_id INTEGER PRIMARY KEY,
  space_id      INTEGER NOT NULL REFERENCES spaces,
  parent_id     INTEGER REFERENCES exp_folders,
  name          TEXT NOT NULL,
  create_time   INTEGER NOT NULL
);
CREATE INDEX folders_by_parent ON exp_folders (space_id, parent_id, exp_folder_id);
CREATE TABLE experiments (
  sub_process_id  INTEGER PRIMARY KEY AUTOINCREMENT,
  organization_id INTEGER NOT NULL,
  device_group_id INTEGER NOT NULL,
  space_id        INTEGER NOT NULL REFERENCES spaces,
  title           TEXT NOT NULL,
  description     TEXT NOT NULL,
  resource_id     INTEGER,
  source          TEXT NOT NULL,
  space_timestamp INTEGER NOT NULL,
  template_name   TEXT,
  exp_folder_id   INTEGER REFERENCES exp_folders,
  priority        TEXT NOT NULL,
  status          TEXT NOT NULL,
  progress        TEXT NOT NULL,
  create_time     INTEGER NOT NULL,
  update_time     INTEGER NOT NULL
);
CREATE INDEX experiments_by_space ON experiments (space_id, sub_process_id);
CREATE INDEX experiments_by_folder ON experiments (space_id, exp_folder_id, sub_process_id);
CREATE INDEX experiments_by_status ON experiments (status, sub_process_id);
CREATE TABLE experiment_messages (
  message_id     INTEGER PRIMARY KEY,
  sub_process_id INTEGER NOT NULL REFERENCES experiments,
  time           INTEGER NOT NULL,
  level          TEXT NOT NULL,
  message        TEXT NOT NULL
);
CREATE INDEX messages_by_experiment ON experiment_messages (sub_process_id, message_id);
CREATE TABLE result_pieces (
  sub_process_id INTEGER NOT NULL REFERENCES experiments,
  piece_id       INTEGER NOT NULL,
  item_id_start  INTEGER NOT NULL,
  item_id_end    INTEGER NOT NULL,
  final_piece    INTEGER NOT NULL,
  resource_id    INTEGER,
  locator        TEXT NOT NULL,
  PRIMARY KEY (sub_process_id, piece_id)
) WITHOUT ROWID;
CREATE TABLE resources (
  resource_id     INTEGER PRIMARY KEY AUTOINCREMENT,
  file_name       TEXT NOT NULL,
  file_format     TEXT NOT NULL,
  uri             TEXT NOT NULL,
  category        TEXT NOT NULL,
  source          TEXT NOT NULL,
  device_group_id INTEGER,
  create_time     INTEGER NOT NULL
);
CREATE TABLE fitting_results (
  fitting_result_id INTEGER PRIMARY KEY,
  sub_process_id    INTEGER NOT NULL REFERENCES experiments,
  space_id          INTEGER NOT NULL,
  big_img_id        INTEGER NOT NULL,
  small_img_id      INTEGER NOT NULL,
  fitting_result    TEXT NOT NULL,
  create_time       INTEGER NOT NULL
);
CREATE INDEX fitting_by_experiment ON fitting_results (sub_process_id);
)sql";

// What a fresh store starts with: the local organisation and its one user.
constexpr const char* kBootstrapV1 = R"sql(
INSERT INTO organizations (organization_id, organization_name) VALUES (1, 'Local');
INSERT INTO users (user_id, user_name, organization_id) VALUES (1, 'local', 1);
)sql";

// Version 2: the store's identity, and PRAGMA application_id marks the file as ours.
constexpr const char* kCreateV2 = R"sql(
CREATE TABLE service_meta (
  name  TEXT PRIMARY KEY,
  value TEXT NOT NULL
) WITHOUT ROWID;
)sql";

// Version 3: users' tokens, of which only the SHA-256 is kept, and the organisation of each
// resource (those of older stores are the local organisation's: the only one they could hold).
constexpr const char* kCreateV3 = R"sql(
CREATE TABLE tokens (
  token_id    INTEGER PRIMARY KEY,
  user_id     INTEGER NOT NULL REFERENCES users,
  token_hash  TEXT NOT NULL UNIQUE,
  create_time INTEGER NOT NULL,
  revoked     INTEGER NOT NULL DEFAULT 0
);
CREATE INDEX tokens_by_user ON tokens (user_id);
ALTER TABLE resources ADD COLUMN organization_id INTEGER NOT NULL DEFAULT 1;
)sql";

// Version 4: what one organisation does no longer shows in another's.
//  - A device group's name is unique within its organisation (the table is rebuilt without
//    the store-wide UNIQUE: SQLite cannot drop a column's constraint).
//  - A space's versions count its own changes: a change gets the space's last version + 1.
//    The changes already logged keep the versions they were given (their sequence ids), so
//    that a version a user noted still names the same state.
//  - Every object is recorded with its organisation, who uploaded it and the device group it
//    belongs to (none until a record of a group names it); each resource with who made it.
//    Resources without a group that an experiment or a fitting result names take the
//    experiment's; the objects that resources and result pieces name take their group.
constexpr const char* kCreateV4 = R"sql(
CREATE TABLE device_groups_v4 (
  device_group_id   INTEGER PRIMARY KEY,
  device_group_name TEXT NOT NULL,
  organization_id   INTEGER NOT NULL REFERENCES organizations,
  description       TEXT NOT NULL,
  hidden            INTEGER NOT NULL DEFAULT 0,
  create_time       INTEGER NOT NULL,
  UNIQUE (organization_id, device_group_name)
);
INSERT INTO device_groups_v4 (device_group_id, device_group_name, organization_id, description,
                              hidden, create_time)
  SELECT device_group_id, device_group_name, organization_id, description, hidden, create_time
  FROM device_groups;
DROP TABLE device_groups;
ALTER TABLE device_groups_v4 RENAME TO device_groups;

ALTER TABLE parameter_changes ADD COLUMN version INTEGER NOT NULL DEFAULT 0;
UPDATE parameter_changes SET version = seq;
CREATE UNIQUE INDEX changes_by_version ON parameter_changes (space_id, version);

CREATE TABLE objects (
  organization_id INTEGER NOT NULL,
  object          TEXT NOT NULL,
  uploader        INTEGER,
  device_group_id INTEGER,
  create_time     INTEGER NOT NULL,
  PRIMARY KEY (organization_id, object)
) WITHOUT ROWID;
ALTER TABLE resources ADD COLUMN creator INTEGER;

-- Resources of no group were their organisation's; those of the local organisation (the only
-- one a store without tokens had) are the local user's.
UPDATE resources SET creator = (
  SELECT user_id FROM users WHERE user_name = 'local' AND organization_id = resources.organization_id)
WHERE device_group_id IS NULL;
UPDATE resources SET device_group_id = (
  SELECT e.device_group_id FROM experiments e WHERE e.resource_id = resources.resource_id
  UNION ALL
  SELECT e.device_group_id FROM fitting_results f JOIN experiments e USING (sub_process_id)
  WHERE resources.resource_id IN (f.big_img_id, f.small_img_id)
  LIMIT 1)
WHERE device_group_id IS NULL;
INSERT OR IGNORE INTO objects (organization_id, object, device_group_id, create_time)
  SELECT e.organization_id, json_extract(p.locator, '$.object'), e.device_group_id, e.create_time
  FROM result_pieces p JOIN experiments e USING (sub_process_id)
  WHERE json_valid(p.locator) AND json_extract(p.locator, '$.bucket') = 'org-' || e.organization_id
    AND json_type(p.locator, '$.object') = 'text';
INSERT OR IGNORE INTO objects (organization_id, object, device_group_id, create_time)
  SELECT organization_id, json_extract(uri, '$.object'), device_group_id, create_time
  FROM resources
  WHERE device_group_id IS NOT NULL AND json_valid(uri)
    AND json_extract(uri, '$.bucket') = 'org-' || organization_id
    AND json_type(uri, '$.object') = 'text'
  ORDER BY resource_id;
)sql";

// The tables, and how many of them are those of version 1, by which a version-1 file (which
// had no application id yet) is recognised as ours.
constexpr const char* kCountTables =
    "SELECT count(*), coalesce(sum(name IN ('organizations', 'users', 'device_groups', "
    "'rights', 'spaces', 'parameter_changes', 'parameters', 'exp_folders', 'experiments', "
    "'experiment_messages', 'result_pieces', 'resources', 'fitting_results')), 0) "
    "FROM sqlite_master WHERE type = 'table'";
constexpr std::int64_t kVersion1TableCount = 13;

constexpr std::size_t kIdentityBytes = 16;

// A new store is built under "service.sqlite3.new-<hex>" beside the final name.
constexpr const char* kTempPrefix = "service.sqlite3.new-";
static_assert(std::string_view(kTempPrefix).starts_with(Store::kFileName));

[[noreturn]] void refuse(const std::string& path, const std::string& what) {
  throw RuntimeError("service store " + path + ": " + what + "; the file was left as it is");
}

[[noreturn]] void too_new(const std::string& path, int version) {
  throw RuntimeError("service store " + path + ": written by a newer version of this library " +
                     "(schema " + std::to_string(version) + ", this one reads up to " +
                     std::to_string(Store::kSchemaVersion) + ")");
}

std::uint32_t big_endian(const std::uint8_t* p, int bytes) {
  std::uint32_t v = 0;
  for (int i = 0; i < bytes; ++i) v = (v << 8) | p[i];
  return v;
}

bool has_wal_frames(const std::string& path) {
  struct stat st {};
  return ::stat((path + "-wal").c_str(), &st) == 0 && st.st_size > 32;
}

// The first 100 bytes of a file (fewer when it is shorter) and its size.
struct Head {
  std::uint8_t bytes[100] = {};
  std::size_t got = 0;
  std::uint64_t size = 0;
};

Head read_head(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail_errno(path, "cannot open", errno);
  Head head;
  struct stat st {};
  int err = 0;
  if (::fstat(fd, &st) != 0) {
    err = errno;
  } else if (S_ISREG(st.st_mode)) {
    head.size = static_cast<std::uint64_t>(st.st_size);
    while (head.got < sizeof head.bytes) {
      const ssize_t n = ::pread(fd, head.bytes + head.got, sizeof head.bytes - head.got,
                                static_cast<off_t>(head.got));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) err = errno;
      if (n <= 0) break;
      head.got += static_cast<std::size_t>(n);
    }
  }
  ::close(fd);
  if (err != 0) fail_errno(path, "cannot read", err);
  if (!S_ISREG(st.st_mode)) refuse(path, "is not a regular file");
  return head;
}

// SQLite takes an empty file for an empty database, and a short one for a smaller database
// (until a read meets the missing pages), so the file's header is checked before SQLite
// opens it.
void check_file(const std::string& path) {
  for (int look = 1;; ++look) {
    const Head head = read_head(path);
    if (head.size == 0) refuse(path, "is empty (0 bytes), not a database");
    if (head.got < 16 || std::memcmp(head.bytes, "SQLite format 3", 16) != 0) {
      refuse(path, "is not an SQLite database");
    }
    if (head.got < sizeof head.bytes) {
      refuse(path,
             "is truncated (" + std::to_string(head.size) + " bytes, less than a database header)");
    }
    const std::uint32_t raw_page_size = big_endian(head.bytes + 16, 2);
    const std::uint32_t page_size = raw_page_size == 1 ? 65536 : raw_page_size;
    if (page_size < 512 || page_size > 65536 || (page_size & (page_size - 1)) != 0) {
      refuse(path, "is not a valid SQLite database (page size " + std::to_string(page_size) + ")");
    }
    // The page count is valid when the "version valid for" number matches the change
    // counter. While a checkpoint copies the write-ahead log into the file, the file may be
    // shorter than its new header says; the log holds the rest until the checkpoint is done.
    // A log that is gone by the time we look may have finished such a checkpoint just now,
    // so a file is truncated only when it looks so again and again.
    const std::uint64_t pages = big_endian(head.bytes + 28, 4);
    const bool counted = big_endian(head.bytes + 24, 4) == big_endian(head.bytes + 92, 4);
    if (!counted || head.size >= pages * page_size || has_wal_frames(path)) return;
    if (look == 3) {
      refuse(path, "is truncated (" + std::to_string(head.size) + " bytes, its header counts " +
                       std::to_string(pages) + " pages of " + std::to_string(page_size) + ")");
    }
  }
}

// What an open SQLite file holds, as far as telling ours from others goes.
struct Found {
  std::int64_t application_id = 0;
  int version = 0;
  std::int64_t tables = 0;
  std::int64_t version1_tables = 0;
};

Found inspect(sqlite3* db, const std::string& path) {
  Found found;
  {
    Statement st(db, path, "PRAGMA application_id");
    if (st.step()) found.application_id = st.integer(0);
  }
  {
    Statement st(db, path, "PRAGMA user_version");
    if (st.step()) found.version = static_cast<int>(st.integer(0));
  }
  Statement st(db, path, kCountTables);
  if (st.step()) {
    found.tables = st.integer(0);
    found.version1_tables = st.integer(1);
  }
  return found;
}

// Whether the file is ours and needs a migration; refuses a file that is not ours.
bool needs_migration(const std::string& path, const Found& found) {
  const bool version1 = found.version == 1 && found.version1_tables == kVersion1TableCount;
  if (found.application_id == Store::kApplicationId) {
    if (found.version > Store::kSchemaVersion) too_new(path, found.version);
    if (found.version == Store::kSchemaVersion) return false;
    if (version1 || found.version >= 2) return true;
    refuse(path, "is damaged (schema version " + std::to_string(found.version) + ")");
  }
  if (found.application_id != 0) {
    refuse(path, "is not a database of this service: it belongs to another application " +
                     std::string("(application id ") + std::to_string(found.application_id) + ")");
  }
  if (version1) return true;
  if (found.tables == 0) refuse(path, "is not a database of this service: it has no tables");
  refuse(path, "is not a database of this service: it holds another application's tables " +
                   std::string("(schema version ") + std::to_string(found.version) + ")");
}

// Brings the schema from `version` up to Store::kSchemaVersion inside the caller's write
// transaction. A later version adds its step here.
void migrate(sqlite3* db, const std::string& path, int version) {
  if (version < 1) {
    exec(db, path, kCreateV1, "cannot create the tables");
    exec(db, path, kBootstrapV1, "cannot create the local organisation and user");
  }
  if (version < 2) {
    exec(db, path, kCreateV2, "cannot create the table service_meta");
    Statement st(db, path, "INSERT INTO service_meta (name, value) VALUES ('identity', ?1)");
    st.text(1, files::random_hex(kIdentityBytes)).run();
    exec(db, path, ("PRAGMA application_id = " + std::to_string(Store::kApplicationId)).c_str());
  }
  if (version < 3) exec(db, path, kCreateV3, "cannot create the table tokens");
  if (version < 4) exec(db, path, kCreateV4, "cannot migrate to schema 4");
  if (version < 5) migrate_quotas(db, path);
  exec(db, path, ("PRAGMA user_version = " + std::to_string(Store::kSchemaVersion)).c_str());
}

// Makes an existing file of ours ready to use: refuses one that is not ours (before anything
// is written to it), then switches to WAL and migrates.
void prepare_schema(sqlite3* db, const std::string& path) {
  Found found;
  {
    Transaction tx(db, path, false);
    found = inspect(db, path);
    tx.commit();
  }
  const bool migration = needs_migration(path, found);
  exec(db, path, "PRAGMA journal_mode = WAL", "cannot switch to WAL mode");
  exec(db, path, "PRAGMA synchronous = NORMAL");
  if (migration) {
    // Without foreign-key enforcement while a table is rebuilt (the pragma is a no-op inside
    // a transaction, so it is set here).
    Transaction tx(db, path, true);
    // Another process may have migrated the file while we waited for the lock.
    found = inspect(db, path);
    if (needs_migration(path, found)) {
      migrate(db, path, found.version);
      tx.commit();
    }
  }
  exec(db, path, "PRAGMA foreign_keys = ON");
}

std::string read_identity(sqlite3* db, const std::string& path) {
  Statement st(db, path, "SELECT value FROM service_meta WHERE name = 'identity'");
  if (!st.step()) refuse(path, "is damaged (it has no service identity)");
  std::string identity = st.text(0);
  const bool hex = identity.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (identity.size() != 2 * kIdentityBytes || !hex) {
    refuse(path, "is damaged (its service identity is not " + std::to_string(2 * kIdentityBytes) +
                     " hex digits)");
  }
  return identity;
}

// Builds a new store under a temporary name beside `path` (schema, first rows, identity, in
// one transaction), closes it, and gives it the name `path` only if no store appeared there
// meanwhile. A crash at any point leaves no file under `path`; of two processes creating at
// once, one places its store and the other removes its temporary and opens that one.
void create_store(const std::string& dir, const std::string& path) {
  files::LockedTemp temp(dir, kTempPrefix, path);
  temp.remove_with({"-journal", "-wal", "-shm"});
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(temp.path().c_str(), &db,
                                 SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (rc != SQLITE_OK) fail(db, path, "cannot create");
    Transaction tx(db, path, true);
    migrate(db, path, 0);
    tx.commit();
    // The journal mode is kept in the file: set it before the file is in place.
    exec(db, path, "PRAGMA journal_mode = WAL", "cannot switch to WAL mode");
  } catch (...) {
    sqlite3_close_v2(db);
    throw;
  }
  sqlite3_close_v2(db);
  temp.link_into_place();  // false: another process placed its store first, which we open
}

}  // namespace

std::string sql::join(std::initializer_list<std::string_view> parts) {
  std::size_t size = 0;
  for (std::string_view part : parts) size += part.size();
  std::string out;
  out.reserve(size);
  for (std::string_view part : parts) out.append(part.data(), part.size());
  return out;
}

PageWindow page_window(std::int64_t page, std::int64_t per_page) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (page < 1) throw ValueError("page must be at least 1, not " + std::to_string(page));
  if (per_page < 1) {
    throw ValueError("per_page must be at least 1, not " + std::to_string(per_page));
  }
  const std::int64_t offset = (page - 1) > kMax / per_page ? kMax : (page - 1) * per_page;
  return PageWindow{per_page, offset};
}

namespace {
// SQLite's memory statistics take one process-wide lock on every allocation, which the
// threads of a server would queue on; we never read them. Only possible before SQLite's first
// use in the process: later calls change nothing.
const bool g_no_memory_statistics = [] {
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  return true;
}();
}  // namespace

Store::Store(std::string storage_dir)
    : storage_dir_(storage_dir.empty() ? utils::get_local_storage_dir() : std::move(storage_dir)) {
  files::make_private_dirs(storage_dir_);
  path_ = storage_dir_ + "/" + kFileName;
  // Creators that died mid-creation left their temporaries behind.
  files::remove_abandoned_temporaries(storage_dir_, kTempPrefix, {"-journal", "-wal", "-shm"});
  struct stat st {};
  if (::lstat(path_.c_str(), &st) != 0) {
    if (errno != ENOENT) fail_errno(path_, "cannot open", errno);
    create_store(storage_dir_, path_);
  }
  check_file(path_);
  // Never SQLITE_OPEN_CREATE: a store only comes into being whole, through create_store().
  const int rc =
      sqlite3_open_v2(path_.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (rc != SQLITE_OK) fail(db_, path_, "cannot open");
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    prepare_schema(db_, path_);
    identity_ = read_identity(db_, path_);
    StatementCache::add(db_);
  } catch (...) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
    throw;
  }
}

Store::~Store() {
  for (sqlite3* reader : idle_readers_) {
    StatementCache::drop(reader);
    sqlite3_close_v2(reader);
  }
  StatementCache::drop(db_);
  sqlite3_close_v2(db_);
}

namespace {
// The snapshot this thread reads through, and its store.
struct PinnedReader {
  const Store* store = nullptr;
  sqlite3* db = nullptr;
};
thread_local PinnedReader t_pinned;
}  // namespace

Store::ReadSnapshot::ReadSnapshot(Store& store) : store_(store) {
  if (t_pinned.store == &store) return;  // the outer snapshot serves
  Reader read = store.reader();
  Statement(read.db(), store.path_, "BEGIN").run();
  db_ = read.release();
  t_pinned = {&store, db_};
}

Store::ReadSnapshot::~ReadSnapshot() {
  if (db_ == nullptr) return;
  t_pinned = {};
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  std::lock_guard lock(store_.readers_mutex_);
  store_.idle_readers_.push_back(db_);
}

Store::Reader Store::reader() {
  if (t_pinned.store == this) return Reader(*this, t_pinned.db, /*lent=*/true);
  {
    std::lock_guard lock(readers_mutex_);
    if (!idle_readers_.empty()) {
      sqlite3* db = idle_readers_.back();
      idle_readers_.pop_back();
      return Reader(*this, db);
    }
  }
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr) !=
      SQLITE_OK) {
    try {
      fail(db, path_, "cannot open for reading");
    } catch (...) {
      sqlite3_close_v2(db);
      throw;
    }
  }
  sqlite3_busy_timeout(db, kBusyTimeoutMs);
  StatementCache::add(db);
  return Reader(*this, db);
}

}  // namespace korvalin_client::service
