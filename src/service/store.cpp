#include "korvalin_client/service/store.hpp"

#include <sqlite3.h>

#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_client::service {
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

[[noreturn]] void fail(sqlite3* db, const std::string& path, const std::string& what) {
  throw RuntimeError("service store " + path + ": " + what + ": " +
                     (db != nullptr ? sqlite3_errmsg(db) : "out of memory"));
}

void exec(sqlite3* db, const std::string& path, const char* sql, const char* what = nullptr) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(db, path, what != nullptr ? what : sql);
  }
}

// A prepared statement, finalized on scope exit. Bound text is copied (SQLITE_TRANSIENT).
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

  void check(int rc, const char* what) const {
    if (rc != SQLITE_OK) fail(db_, path_, what);
  }
  Statement& text(int i, std::string_view v) {
    check(sqlite3_bind_text64(stmt_, i, v.data(), v.size(), SQLITE_TRANSIENT, SQLITE_UTF8),
          "cannot bind a text");
    return *this;
  }
  Statement& blob(int i, std::string_view v) {
    check(sqlite3_bind_blob64(stmt_, i, v.data(), v.size(), SQLITE_TRANSIENT),
          "cannot bind a value");
    return *this;
  }
  Statement& integer(int i, std::int64_t v) {
    check(sqlite3_bind_int64(stmt_, i, v), "cannot bind an integer");
    return *this;
  }
  Statement& null(int i) {
    check(sqlite3_bind_null(stmt_, i), "cannot bind a null");
    return *this;
  }
  Statement& integer(int i, const std::optional<std::int64_t>& v) {
    return v ? integer(i, *v) : null(i);
  }
  Statement& opt_text(int i, const std::optional<std::string>& v) {
    return v ? text(i, *v) : null(i);
  }
  // Keeps the Value's kind: null, integer, real and text as themselves, anything else as JSON
  // in a BLOB.
  Statement& value(int i, const Value& v) {
    switch (v.type()) {
      case Value::value_t::null:
        return null(i);
      case Value::value_t::string:
        return text(i, v.get_ref<const std::string&>());
      case Value::value_t::number_integer:
        return integer(i, v.get<std::int64_t>());
      case Value::value_t::number_unsigned:
        if (v.get<std::uint64_t>() <=
            static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
          return integer(i, v.get<std::int64_t>());
        }
        break;
      case Value::value_t::number_float:
        check(sqlite3_bind_double(stmt_, i, v.get<double>()), "cannot bind a value");
        return *this;
      default:
        break;
    }
    return blob(i, v.dump());
  }

  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc == SQLITE_DONE) return false;
    fail(db_, path_, "query failed");
  }
  // Steps to completion and makes the statement ready for new bindings.
  void run() {
    while (step()) {
    }
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
  }

  bool is_null(int col) const { return sqlite3_column_type(stmt_, col) == SQLITE_NULL; }
  std::int64_t integer(int col) const { return sqlite3_column_int64(stmt_, col); }
  std::string text(int col) const {
    const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, col));
    return p == nullptr ? std::string() : std::string(p, sqlite3_column_bytes(stmt_, col));
  }
  Value int_or_null(int col) const { return is_null(col) ? Value(nullptr) : Value(integer(col)); }
  Value text_or_null(int col) const { return is_null(col) ? Value(nullptr) : Value(text(col)); }
  // The inverse of value(): BLOBs hold JSON.
  Value value(int col) const {
    switch (sqlite3_column_type(stmt_, col)) {
      case SQLITE_INTEGER:
        return integer(col);
      case SQLITE_FLOAT:
        return sqlite3_column_double(stmt_, col);
      case SQLITE_TEXT:
        return text(col);
      case SQLITE_BLOB: {
        const auto* p = static_cast<const char*>(sqlite3_column_blob(stmt_, col));
        const auto n = static_cast<std::size_t>(sqlite3_column_bytes(stmt_, col));
        return parse_json(p, p + n);
      }
      default:
        return nullptr;
    }
  }
  // A TEXT column holding JSON.
  Value json(int col) const {
    const std::string t = text(col);
    return parse_json(t.data(), t.data() + t.size());
  }

 private:
  Value parse_json(const char* begin, const char* end) const {
    Value v = Value::parse(begin, end, nullptr, /*allow_exceptions=*/false);
    if (v.is_discarded())
      throw RuntimeError("service store " + path_ + ": a stored value is " + "not valid JSON");
    return v;
  }

  sqlite3* db_;
  const std::string& path_;
  sqlite3_stmt* stmt_ = nullptr;
};

// BEGIN IMMEDIATE (a write) or BEGIN (a consistent read), rolled back unless committed.
class Transaction {
 public:
  Transaction(sqlite3* db, const std::string& path, bool write) : db_(db), path_(path) {
    exec(db, path, write ? "BEGIN IMMEDIATE" : "BEGIN");
  }
  ~Transaction() {
    if (!committed_ && sqlite3_get_autocommit(db_) == 0) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
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

// Brings the schema from `version` up to Store::kSchemaVersion inside the caller's
// transaction. A later version adds its step here: `if (version < 2) { ALTER TABLE ...; }`.
void migrate(sqlite3* db, const std::string& path, int version) {
  if (version < 1) {
    exec(db, path, kCreateV1, "cannot create the tables");
    exec(db, path, kBootstrapV1, "cannot create the local organisation and user");
  }
  exec(db, path, ("PRAGMA user_version = " + std::to_string(Store::kSchemaVersion)).c_str());
}

[[noreturn]] void too_new(const std::string& path, int version) {
  throw RuntimeError("service store " + path + ": written by a newer version of this library " +
                     "(schema " + std::to_string(version) + ", this one reads up to " +
                     std::to_string(Store::kSchemaVersion) + ")");
}

void prepare_schema(sqlite3* db, const std::string& path) {
  int version = read_user_version(db, path);
  if (version == Store::kSchemaVersion) return;
  if (version > Store::kSchemaVersion) too_new(path, version);
  Transaction tx(db, path, true);
  // Another process may have created or migrated the schema while we waited for the lock.
  version = read_user_version(db, path);
  if (version > Store::kSchemaVersion) too_new(path, version);
  if (version == Store::kSchemaVersion) return;
  if (version <= 0) {
    Statement tables(db, path, "SELECT count(*) FROM sqlite_master");
    if (tables.step() && tables.integer(0) > 0) {
      throw RuntimeError("service store " + path + ": not a database of this service");
    }
  }
  migrate(db, path, version);
  tx.commit();
}

std::int64_t changes(sqlite3* db) { return sqlite3_changes64(db); }

[[noreturn]] void unknown(std::string_view what, std::int64_t id) {
  throw RuntimeError("unknown " + std::string(what) + " " + std::to_string(id));
}

// "key >= ?n AND key < ?n+1" for keys starting with `prefix`, or "1" for every key.
std::string prefix_clause(const std::string& prefix, int n) {
  if (prefix.empty()) return "1";
  return "key >= ?" + std::to_string(n) + " AND key < ?" + std::to_string(n + 1);
}
void bind_prefix(Statement& st, const std::string& prefix, int n) {
  if (prefix.empty()) return;
  std::string upper = prefix;
  upper.back() = static_cast<char>(upper.back() + 1);
  st.text(n, prefix).text(n + 1, upper);
}

constexpr const char* kGroupColumns =
    "g.device_group_id, g.device_group_name, g.organization_id, o.organization_name, "
    "g.description, g.hidden, g.create_time FROM device_groups g "
    "JOIN organizations o USING (organization_id)";

Value group_record(const Statement& st) {
  return Value{{"device_group_id", st.integer(0)}, {"device_group_name", st.text(1)},
               {"organization_id", st.integer(2)}, {"organization_name", st.text(3)},
               {"description", st.text(4)},        {"hidden", st.integer(5) != 0},
               {"create_time", st.integer(6)}};
}

constexpr const char* kSpaceColumns =
    "space_id, space_name, description, hidden, device_group_id, create_time FROM spaces";

Value space_record(const Statement& st) {
  return Value{{"space_id", st.integer(0)},        {"space_name", st.text(1)},
               {"description", st.text(2)},        {"hidden", st.integer(3) != 0},
               {"device_group_id", st.integer(4)}, {"create_time", st.integer(5)}};
}

constexpr const char* kFolderColumns =
    "exp_folder_id, name, parent_id, space_id, create_time FROM exp_folders";

Value folder_record(const Statement& st) {
  return Value{{"exp_folder_id", st.integer(0)},
               {"exp_folder_name", st.text(1)},
               {"parent_exp_folder_id", st.int_or_null(2)},
               {"space_id", st.integer(3)},
               {"create_time", st.integer(4)}};
}

constexpr const char* kExperimentColumns =
    "sub_process_id, title, description, create_time, space_id, resource_id, status, progress, "
    "source, space_timestamp, template_name, exp_folder_id, priority, organization_id, "
    "device_group_id, update_time FROM experiments";

Value experiment_record(const Statement& st) {
  return Value{{"sub_process_id", st.integer(0)},
               {"title", st.text(1)},
               {"desc", st.text(2)},
               {"create_time", st.integer(3)},
               {"space_id", st.integer(4)},
               {"resource_id", st.int_or_null(5)},
               {"status", st.text(6)},
               {"progress", st.text(7)},
               {"source", st.text(8)},
               {"space_timestamp", st.integer(9)},
               {"template_name", st.text_or_null(10)},
               {"exp_folder_id", st.int_or_null(11)},
               {"priority", st.json(12)},
               {"organization_id", st.integer(13)},
               {"device_group_id", st.integer(14)},
               {"update_time", st.integer(15)}};
}

Value read_messages(sqlite3* db, const std::string& path, std::int64_t id) {
  Statement st(db, path,
               "SELECT time, level, message FROM experiment_messages WHERE sub_process_id = ?1 "
               "ORDER BY message_id");
  st.integer(1, id);
  Value list = Value::array();
  while (st.step()) {
    list.push_back(
        {{"timestamp", st.integer(0)}, {"message_level", st.text(1)}, {"message", st.text(2)}});
  }
  return list;
}

// The record of the row whose `key_column` is `id` ("SELECT " + columns + " WHERE key = ?"),
// read by `record`; nullopt when there is none. Call with the store's mutex held.
std::optional<Value> read_by_id(sqlite3* db, const std::string& path, const char* columns,
                                const char* key_column, std::int64_t id,
                                Value (*record)(const Statement&)) {
  Statement st(db, path, std::string("SELECT ") + columns + " WHERE " + key_column + " = ?1");
  st.integer(1, id);
  if (!st.step()) return std::nullopt;
  return record(st);
}

std::optional<Value> read_experiment(sqlite3* db, const std::string& path, std::int64_t id) {
  Statement st(db, path,
               std::string("SELECT ") + kExperimentColumns + " WHERE sub_process_id = ?1");
  st.integer(1, id);
  if (!st.step()) return std::nullopt;
  Value record = experiment_record(st);
  record["exp_msg"] = read_messages(db, path, id);
  return record;
}

Value read_experiment_list(Statement& st) {
  Value list = Value::array();
  while (st.step()) list.push_back(experiment_record(st));
  return list;
}

std::int64_t count(sqlite3* db, const std::string& path, const std::string& sql,
                   const std::function<void(Statement&)>& bind) {
  Statement st(db, path, sql);
  bind(st);
  return st.step() ? st.integer(0) : 0;
}

// Reads parameter rows (key, value, type[, deleted]) skipping deleted ones.
std::vector<Parameter> read_parameters(Statement& st, bool has_deleted) {
  std::vector<Parameter> out;
  while (st.step()) {
    if (has_deleted && st.integer(3) != 0) continue;
    out.push_back(Parameter{st.text(0), st.value(1), st.value(2)});
  }
  return out;
}

std::vector<Parameter> current_parameters(sqlite3* db, const std::string& path,
                                          std::int64_t space_id, const std::string& prefix) {
  Statement st(db, path,
               "SELECT key, value, type FROM parameters WHERE space_id = ?1 AND " +
                   prefix_clause(prefix, 2) + " ORDER BY key");
  st.integer(1, space_id);
  bind_prefix(st, prefix, 2);
  return read_parameters(st, false);
}

// The latest change per key among the changes with `column` <= `bound` (SQLite returns the
// other columns of the row that holds max(seq)).
std::vector<Parameter> logged_parameters(sqlite3* db, const std::string& path,
                                         std::int64_t space_id, const char* column,
                                         std::int64_t bound, const std::string& prefix) {
  Statement st(db, path,
               std::string("SELECT key, value, type, deleted, max(seq) FROM parameter_changes "
                           "WHERE space_id = ?1 AND ") +
                   column + " <= ?2 AND " + prefix_clause(prefix, 3) +
                   " GROUP BY key ORDER BY key");
  st.integer(1, space_id).integer(2, bound);
  bind_prefix(st, prefix, 3);
  return read_parameters(st, true);
}

constexpr const char* kChangeColumns =
    "key, value, type, deleted, time, seq, experiment_id, node_id, session_id "
    "FROM parameter_changes";

Value change_record(const Statement& st) {
  const bool deleted = st.integer(3) != 0;
  return Value{{"k_full", st.text(0)},
               {"v", deleted ? Value(nullptr) : st.value(1)},
               {"t", st.value(2)},
               {"deleted_flag", deleted},
               {"timestamp", st.integer(4)},
               {"version", st.integer(5)},
               {"experiment_id", st.value(6)},
               {"node_id", st.value(7)},
               {"session_id", st.value(8)}};
}

Value piece_record(const Statement& st) {
  const Value locator = st.json(5);
  return Value{{"piece_id", st.integer(0)},
               {"chunk_id", st.integer(0)},
               {"resource_id", st.int_or_null(1)},
               {"final_piece", st.integer(2) != 0},
               {"item_id_start", st.integer(3)},
               {"item_id_end", st.integer(4)},
               {"bucket", locator.is_object() ? get_key(locator, "bucket") : Value(nullptr)},
               {"object", locator.is_object() ? get_key(locator, "object") : Value(nullptr)}};
}

}  // namespace

PageWindow page_window(std::int64_t page, std::int64_t per_page) {
  constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
  if (page < 1) throw ValueError("page must be at least 1, not " + std::to_string(page));
  if (per_page < 1) {
    throw ValueError("per_page must be at least 1, not " + std::to_string(per_page));
  }
  const std::int64_t offset = (page - 1) > kMax / per_page ? kMax : (page - 1) * per_page;
  return PageWindow{per_page, offset};
}

Store::Store(std::string storage_dir)
    : storage_dir_(storage_dir.empty() ? utils::get_local_storage_dir() : std::move(storage_dir)) {
  utils::make_dirs(storage_dir_);
  path_ = storage_dir_ + "/" + kFileName;
  const int rc =
      sqlite3_open_v2(path_.c_str(), &db_,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  try {
    if (rc != SQLITE_OK) fail(db_, path_, "cannot open");
    sqlite3_busy_timeout(db_, kBusyTimeoutMs);
    exec(db_, path_, "PRAGMA journal_mode = WAL", "cannot switch to WAL mode");
    exec(db_, path_, "PRAGMA synchronous = NORMAL");
    exec(db_, path_, "PRAGMA foreign_keys = ON");
    prepare_schema(db_, path_);
  } catch (...) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
    throw;
  }
}

Store::~Store() { sqlite3_close_v2(db_); }

// ---- organisations, users, rights ---------------------------------------------------------

Value Store::organization(std::int64_t organization_id) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT organization_id, organization_name FROM organizations "
               "WHERE organization_id = ?1");
  st.integer(1, organization_id);
  if (!st.step()) unknown("organization", organization_id);
  return Value{{"organization_id", st.integer(0)}, {"organization_name", st.text(1)}};
}

std::int64_t Store::user_id(const std::string& user_name) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_, "SELECT user_id FROM users WHERE user_name = ?1");
  st.text(1, user_name);
  if (!st.step()) throw RuntimeError("unknown user \"" + user_name + "\"");
  return st.integer(0);
}

void Store::set_right(std::int64_t user_id, std::int64_t device_group_id, const std::string& access,
                      bool granted) {
  if (access != "READ" && access != "WRITE") {
    throw ValueError("access must be \"READ\" or \"WRITE\", not \"" + access + "\"");
  }
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement st(db_, path_,
               granted ? "INSERT OR IGNORE INTO rights (user_id, device_group_id, access) "
                         "VALUES (?1, ?2, ?3)"
                       : "DELETE FROM rights WHERE user_id = ?1 AND device_group_id = ?2 "
                         "AND access = ?3");
  st.integer(1, user_id).integer(2, device_group_id).text(3, access).run();
  tx.commit();
}

bool Store::has_right(std::int64_t user_id, std::int64_t device_group_id,
                      const std::string& access) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT 1 FROM rights WHERE user_id = ?1 AND device_group_id = ?2 AND access = ?3");
  st.integer(1, user_id).integer(2, device_group_id).text(3, access);
  return st.step();
}

// ---- device groups ------------------------------------------------------------------------

Value Store::create_group(const std::string& name, const std::string& description,
                          std::int64_t organization_id, std::int64_t owner, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  {
    Statement taken(db_, path_, "SELECT 1 FROM device_groups WHERE device_group_name = ?1");
    taken.text(1, name);
    if (taken.step()) throw RuntimeError("device group \"" + name + "\" already exists");
    Statement org(db_, path_, "SELECT 1 FROM organizations WHERE organization_id = ?1");
    org.integer(1, organization_id);
    if (!org.step()) unknown("organization", organization_id);
  }
  Statement ins(db_, path_,
                "INSERT INTO device_groups (device_group_name, organization_id, description, "
                "create_time) VALUES (?1, ?2, ?3, ?4)");
  ins.text(1, name).integer(2, organization_id).text(3, description).integer(4, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  Statement right(db_, path_,
                  "INSERT INTO rights (user_id, device_group_id, access) VALUES (?1, ?2, 'READ'), "
                  "(?1, ?2, 'WRITE')");
  right.integer(1, owner).integer(2, id).run();
  tx.commit();
  return *read_by_id(db_, path_, kGroupColumns, "device_group_id", id, group_record);
}

std::optional<Value> Store::find_group(const std::string& name) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               std::string("SELECT ") + kGroupColumns + " WHERE device_group_name = ?1");
  st.text(1, name);
  if (!st.step()) return std::nullopt;
  return group_record(st);
}

std::optional<Value> Store::find_group(std::int64_t device_group_id) {
  std::lock_guard lock(mutex_);
  return read_by_id(db_, path_, kGroupColumns, "device_group_id", device_group_id, group_record);
}

Value Store::list_groups(std::optional<std::int64_t> organization_id, bool show_hidden,
                         PageWindow window) {
  std::lock_guard lock(mutex_);
  const std::string where = " WHERE (?1 IS NULL OR g.organization_id = ?1) AND (?2 OR NOT hidden)";
  Transaction tx(db_, path_, false);
  const auto bind = [&](Statement& st) {
    st.integer(1, organization_id).integer(2, show_hidden ? 1 : 0);
  };
  const std::int64_t total = count(
      db_, path_,
      "SELECT count(*) FROM device_groups g JOIN organizations o USING (organization_id)" + where,
      bind);
  Statement st(db_, path_,
               std::string("SELECT ") + kGroupColumns + where +
                   " ORDER BY g.device_group_id LIMIT ?3 OFFSET ?4");
  bind(st);
  st.integer(3, window.limit).integer(4, window.offset);
  Value list = Value::array();
  while (st.step()) list.push_back(group_record(st));
  tx.commit();
  return Value{{"list", std::move(list)}, {"total", total}};
}

// ---- spaces -------------------------------------------------------------------------------

Value Store::create_space(std::int64_t device_group_id, const std::string& name,
                          const std::string& description, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO spaces (device_group_id, space_name, description, create_time) "
                "VALUES (?1, ?2, ?3, ?4)");
  ins.integer(1, device_group_id).text(2, name).text(3, description).integer(4, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return *read_by_id(db_, path_, kSpaceColumns, "space_id", id, space_record);
}

std::optional<Value> Store::find_space(std::int64_t space_id) {
  std::lock_guard lock(mutex_);
  return read_by_id(db_, path_, kSpaceColumns, "space_id", space_id, space_record);
}

Value Store::list_spaces(std::int64_t device_group_id, bool show_hidden, PageWindow window) {
  std::lock_guard lock(mutex_);
  const std::string where = " WHERE device_group_id = ?1 AND (?2 OR NOT hidden)";
  Transaction tx(db_, path_, false);
  const auto bind = [&](Statement& st) {
    st.integer(1, device_group_id).integer(2, show_hidden ? 1 : 0);
  };
  const std::int64_t total = count(db_, path_, "SELECT count(*) FROM spaces" + where, bind);
  Statement st(
      db_, path_,
      std::string("SELECT ") + kSpaceColumns + where + " ORDER BY space_id LIMIT ?3 OFFSET ?4");
  bind(st);
  st.integer(3, window.limit).integer(4, window.offset);
  Value list = Value::array();
  while (st.step()) list.push_back(space_record(st));
  tx.commit();
  return Value{{"list", std::move(list)}, {"total", total}};
}

Value Store::set_space_hidden(std::int64_t space_id, bool hidden) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_, "UPDATE spaces SET hidden = ?2 WHERE space_id = ?1");
  up.integer(1, space_id).integer(2, hidden ? 1 : 0).run();
  if (changes(db_) == 0) unknown("space", space_id);
  tx.commit();
  return *read_by_id(db_, path_, kSpaceColumns, "space_id", space_id, space_record);
}

// ---- parameters ---------------------------------------------------------------------------

std::int64_t Store::add_parameters(std::int64_t space_id, const std::vector<Parameter>& parameters,
                                   std::int64_t time, const Value& experiment_id,
                                   const Value& node_id, const Value& session_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement log(db_, path_,
                "INSERT INTO parameter_changes (space_id, key, value, type, deleted, time, "
                "experiment_id, node_id, session_id) VALUES (?1, ?2, ?3, ?4, 0, ?5, ?6, ?7, ?8)");
  Statement current(db_, path_,
                    "INSERT INTO parameters (space_id, key, value, type, seq) "
                    "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (space_id, key) DO UPDATE SET "
                    "value = excluded.value, type = excluded.type, seq = excluded.seq");
  std::int64_t seq = 0;
  for (const Parameter& p : parameters) {
    log.integer(1, space_id).text(2, p.key).value(3, p.value).value(4, p.type).integer(5, time);
    log.value(6, experiment_id).value(7, node_id).value(8, session_id).run();
    seq = sqlite3_last_insert_rowid(db_);
    current.integer(1, space_id).text(2, p.key).value(3, p.value).value(4, p.type);
    current.integer(5, seq).run();
  }
  tx.commit();
  return seq;
}

std::int64_t Store::delete_parameter(std::int64_t space_id, const std::string& key,
                                     std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement del(db_, path_, "DELETE FROM parameters WHERE space_id = ?1 AND key = ?2");
  del.integer(1, space_id).text(2, key).run();
  if (changes(db_) == 0) {
    throw RuntimeError("space " + std::to_string(space_id) + " has no parameter \"" + key + "\"");
  }
  Statement log(db_, path_,
                "INSERT INTO parameter_changes (space_id, key, deleted, time) "
                "VALUES (?1, ?2, 1, ?3)");
  log.integer(1, space_id).text(2, key).integer(3, time).run();
  const std::int64_t seq = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return seq;
}

std::vector<Parameter> Store::parameters_as_of(std::int64_t space_id,
                                               std::optional<std::int64_t> timestamp,
                                               const std::string& prefix) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  std::vector<Parameter> out;
  bool current = !timestamp;
  if (!current) {
    // No change after the moment: the current state is the state as of then.
    Statement latest(db_, path_, "SELECT max(time) FROM parameter_changes WHERE space_id = ?1");
    latest.integer(1, space_id);
    current = !latest.step() || latest.is_null(0) || latest.integer(0) <= *timestamp;
  }
  out = current ? current_parameters(db_, path_, space_id, prefix)
                : logged_parameters(db_, path_, space_id, "time", *timestamp, prefix);
  tx.commit();
  return out;
}

std::vector<Parameter> Store::parameters_at_version(std::int64_t space_id, std::int64_t version,
                                                    const std::string& prefix) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  bool current = version == 0;
  if (!current) {
    Statement latest(db_, path_, "SELECT max(seq) FROM parameter_changes WHERE space_id = ?1");
    latest.integer(1, space_id);
    current = !latest.step() || latest.is_null(0) || latest.integer(0) <= version;
  }
  std::vector<Parameter> out =
      current ? current_parameters(db_, path_, space_id, prefix)
              : logged_parameters(db_, path_, space_id, "seq", version, prefix);
  tx.commit();
  return out;
}

Value Store::parameter_log(std::int64_t space_id, std::int64_t since) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               std::string("SELECT ") + kChangeColumns +
                   " WHERE space_id = ?1 AND time >= ?2 ORDER BY seq DESC");
  st.integer(1, space_id).integer(2, since);
  Value list = Value::array();
  while (st.step()) list.push_back(change_record(st));
  return list;
}

Value Store::parameter_history(std::int64_t space_id, const std::optional<std::string>& key,
                               PageWindow window) {
  std::lock_guard lock(mutex_);
  const std::string where = " WHERE space_id = ?1 AND (?2 IS NULL OR key = ?2)";
  Transaction tx(db_, path_, false);
  const auto bind = [&](Statement& st) { st.integer(1, space_id).opt_text(2, key); };
  const std::int64_t total =
      count(db_, path_, "SELECT count(*) FROM parameter_changes" + where, bind);
  Statement st(
      db_, path_,
      std::string("SELECT ") + kChangeColumns + where + " ORDER BY seq DESC LIMIT ?3 OFFSET ?4");
  bind(st);
  st.integer(3, window.limit).integer(4, window.offset);
  Value list = Value::array();
  while (st.step()) list.push_back(change_record(st));
  tx.commit();
  return Value::array({std::move(list), total});
}

// ---- experiment folders -------------------------------------------------------------------

Value Store::create_folder(std::int64_t space_id, const std::string& name,
                           std::optional<std::int64_t> parent, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO exp_folders (space_id, parent_id, name, create_time) "
                "VALUES (?1, ?2, ?3, ?4)");
  ins.integer(1, space_id).integer(2, parent).text(3, name).integer(4, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return *read_by_id(db_, path_, kFolderColumns, "exp_folder_id", id, folder_record);
}

std::optional<Value> Store::find_folder(std::int64_t exp_folder_id) {
  std::lock_guard lock(mutex_);
  return read_by_id(db_, path_, kFolderColumns, "exp_folder_id", exp_folder_id, folder_record);
}

Value Store::list_folders(std::int64_t space_id, std::optional<std::int64_t> parent) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               std::string("SELECT ") + kFolderColumns +
                   " WHERE space_id = ?1 AND parent_id IS ?2 ORDER BY exp_folder_id");
  st.integer(1, space_id).integer(2, parent);
  Value list = Value::array();
  while (st.step()) list.push_back(folder_record(st));
  return list;
}

// ---- experiments --------------------------------------------------------------------------

Value Store::create_experiment(const NewExperiment& exp, std::int64_t create_time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO experiments (organization_id, device_group_id, space_id, title, "
                "description, resource_id, source, space_timestamp, template_name, "
                "exp_folder_id, priority, status, progress, create_time, update_time) VALUES "
                "(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, 'queued', '{}', ?12, ?12)");
  ins.integer(1, exp.organization_id).integer(2, exp.device_group_id).integer(3, exp.space_id);
  ins.text(4, exp.title).text(5, exp.desc).integer(6, exp.resource_id).text(7, exp.source);
  ins.integer(8, exp.space_timestamp).opt_text(9, exp.template_name).integer(10, exp.exp_folder_id);
  ins.text(11, exp.priority.dump()).integer(12, create_time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return *read_experiment(db_, path_, id);
}

std::optional<Value> Store::find_experiment(std::int64_t sub_process_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  std::optional<Value> record = read_experiment(db_, path_, sub_process_id);
  tx.commit();
  return record;
}

Value Store::experiment_messages(std::int64_t sub_process_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  Statement exists(db_, path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1");
  exists.integer(1, sub_process_id);
  if (!exists.step()) unknown("experiment", sub_process_id);
  Value list = read_messages(db_, path_, sub_process_id);
  tx.commit();
  return list;
}

Value Store::list_experiments(std::int64_t space_id, PageWindow window) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  const std::int64_t total =
      count(db_, path_, "SELECT count(*) FROM experiments WHERE space_id = ?1",
            [&](Statement& st) { st.integer(1, space_id); });
  Statement st(db_, path_,
               std::string("SELECT ") + kExperimentColumns +
                   " WHERE space_id = ?1 ORDER BY sub_process_id DESC LIMIT ?2 OFFSET ?3");
  st.integer(1, space_id).integer(2, window.limit).integer(3, window.offset);
  Value list = read_experiment_list(st);
  tx.commit();
  return Value{{"list", std::move(list)}, {"total", total}};
}

Value Store::list_new_experiments(std::int64_t space_id, std::int64_t since_id,
                                  std::optional<std::int64_t> folder, std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               std::string("SELECT ") + kExperimentColumns +
                   " WHERE space_id = ?1 AND sub_process_id > ?2 AND "
                   "(?3 IS NULL OR exp_folder_id = ?3) ORDER BY sub_process_id LIMIT ?4");
  st.integer(1, space_id).integer(2, since_id).integer(3, folder).integer(4, limit);
  return Value{{"list", read_experiment_list(st)}};
}

Value Store::list_experiments_by_folder(std::int64_t space_id, std::optional<std::int64_t> folder,
                                        std::optional<std::int64_t> before_id, std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               std::string("SELECT ") + kExperimentColumns +
                   " WHERE space_id = ?1 AND exp_folder_id IS ?2 AND "
                   "(?3 IS NULL OR sub_process_id < ?3) ORDER BY sub_process_id DESC LIMIT ?4");
  st.integer(1, space_id).integer(2, folder).integer(3, before_id).integer(4, limit);
  return Value{{"list", read_experiment_list(st)}};
}

std::int64_t Store::count_experiments_by_folder(std::int64_t space_id,
                                                std::optional<std::int64_t> folder) {
  std::lock_guard lock(mutex_);
  return count(db_, path_,
               "SELECT count(*) FROM experiments WHERE space_id = ?1 AND exp_folder_id IS ?2",
               [&](Statement& st) { st.integer(1, space_id).integer(2, folder); });
}

std::vector<std::int64_t> Store::queued_experiments(std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT sub_process_id FROM experiments WHERE status = 'queued' "
               "ORDER BY sub_process_id LIMIT ?1");
  st.integer(1, limit);
  std::vector<std::int64_t> ids;
  while (st.step()) ids.push_back(st.integer(0));
  return ids;
}

Value Store::set_experiment_status(std::int64_t sub_process_id, const std::string& status,
                                   const std::optional<Value>& progress, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_,
               "UPDATE experiments SET status = ?2, progress = coalesce(?3, progress), "
               "update_time = ?4 WHERE sub_process_id = ?1");
  up.integer(1, sub_process_id).text(2, status).integer(4, time);
  if (progress) up.text(3, progress->dump());
  up.run();
  if (changes(db_) == 0) unknown("experiment", sub_process_id);
  Value record = *read_experiment(db_, path_, sub_process_id);
  tx.commit();
  return record;
}

std::vector<std::int64_t> Store::experiments_with_status(const std::string& status,
                                                         std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT sub_process_id FROM experiments WHERE status = ?1 "
               "ORDER BY sub_process_id LIMIT ?2");
  st.text(1, status).integer(2, limit);
  std::vector<std::int64_t> ids;
  while (st.step()) ids.push_back(st.integer(0));
  return ids;
}

std::optional<Value> Store::set_experiment_status_if(std::int64_t sub_process_id,
                                                     const std::string& expected,
                                                     const std::string& status,
                                                     const std::optional<Value>& progress,
                                                     std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_,
               "UPDATE experiments SET status = ?2, progress = coalesce(?3, progress), "
               "update_time = ?4 WHERE sub_process_id = ?1 AND status = ?5");
  up.integer(1, sub_process_id).text(2, status).integer(4, time).text(5, expected);
  if (progress) up.text(3, progress->dump());
  up.run();
  const bool changed = changes(db_) > 0;
  std::optional<Value> record = read_experiment(db_, path_, sub_process_id);
  if (!record) unknown("experiment", sub_process_id);
  tx.commit();
  if (!changed) return std::nullopt;
  return record;
}

void Store::append_message(std::int64_t sub_process_id, const std::string& level,
                           const std::string& message, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement exists(db_, path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1");
  exists.integer(1, sub_process_id);
  if (!exists.step()) unknown("experiment", sub_process_id);
  Statement ins(db_, path_,
                "INSERT INTO experiment_messages (sub_process_id, time, level, message) "
                "VALUES (?1, ?2, ?3, ?4)");
  ins.integer(1, sub_process_id).integer(2, time).text(3, level).text(4, message).run();
  tx.commit();
}

// ---- result pieces ------------------------------------------------------------------------

void Store::add_result_piece(const ResultPiece& piece) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement exists(db_, path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1");
  exists.integer(1, piece.sub_process_id);
  if (!exists.step()) unknown("experiment", piece.sub_process_id);
  Statement ins(db_, path_,
                "INSERT OR REPLACE INTO result_pieces (sub_process_id, piece_id, item_id_start, "
                "item_id_end, final_piece, resource_id, locator) VALUES "
                "(?1, ?2, ?3, ?4, ?5, NULL, ?6)");
  ins.integer(1, piece.sub_process_id).integer(2, piece.piece_id);
  ins.integer(3, piece.item_id_start).integer(4, piece.item_id_end);
  ins.integer(5, piece.final_piece ? 1 : 0).text(6, piece.locator.dump()).run();
  tx.commit();
}

Value Store::result_pieces(std::int64_t sub_process_id, std::int64_t start, std::int64_t end) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT piece_id, resource_id, final_piece, item_id_start, item_id_end, locator "
               "FROM result_pieces WHERE sub_process_id = ?1 AND piece_id BETWEEN ?2 AND ?3 "
               "ORDER BY piece_id");
  st.integer(1, sub_process_id).integer(2, start).integer(3, end);
  Value list = Value::array();
  while (st.step()) list.push_back(piece_record(st));
  return list;
}

std::optional<Value> Store::result_piece_locator(std::int64_t sub_process_id,
                                                 std::int64_t piece_id) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT locator FROM result_pieces WHERE sub_process_id = ?1 AND piece_id = ?2");
  st.integer(1, sub_process_id).integer(2, piece_id);
  if (!st.step()) return std::nullopt;
  return st.json(0);
}

std::int64_t Store::remove_result_pieces(std::int64_t sub_process_id, std::int64_t start,
                                         std::int64_t end) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement del(db_, path_,
                "DELETE FROM result_pieces WHERE sub_process_id = ?1 AND piece_id BETWEEN ?2 AND "
                "?3");
  del.integer(1, sub_process_id).integer(2, start).integer(3, end).run();
  const std::int64_t n = changes(db_);
  tx.commit();
  return n;
}

std::int64_t Store::set_result_resource(std::int64_t sub_process_id, std::int64_t resource_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_, "UPDATE result_pieces SET resource_id = ?2 WHERE sub_process_id = ?1");
  up.integer(1, sub_process_id).integer(2, resource_id).run();
  const std::int64_t n = changes(db_);
  tx.commit();
  return n;
}

bool Store::set_piece_resource(std::int64_t sub_process_id, std::int64_t piece_id,
                               std::int64_t resource_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_,
               "UPDATE result_pieces SET resource_id = ?3 WHERE sub_process_id = ?1 AND "
               "piece_id = ?2");
  up.integer(1, sub_process_id).integer(2, piece_id).integer(3, resource_id).run();
  const bool found = changes(db_) > 0;
  tx.commit();
  return found;
}

// ---- resources ----------------------------------------------------------------------------

Value Store::add_resource(const std::string& file_name, const std::string& file_format,
                          const std::string& uri, const std::string& category,
                          const std::string& source, std::optional<std::int64_t> device_group_id,
                          std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO resources (file_name, file_format, uri, category, source, "
                "device_group_id, create_time) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
  ins.text(1, file_name).text(2, file_format).text(3, uri).text(4, category).text(5, source);
  ins.integer(6, device_group_id).integer(7, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return Value{{"resource_id", id},
               {"file_name", file_name},
               {"file_format", file_format},
               {"uri", uri},
               {"category", category},
               {"source", source},
               {"device_group_id", device_group_id ? Value(*device_group_id) : Value(nullptr)},
               {"create_time", time}};
}

Value Store::resources(const std::vector<std::int64_t>& resource_ids) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  Statement st(db_, path_,
               "SELECT resource_id, uri, file_name, file_format, category, source, "
               "device_group_id, create_time FROM resources WHERE resource_id = ?1");
  Value list = Value::array();
  for (const std::int64_t id : resource_ids) {
    st.integer(1, id);
    if (st.step()) {
      list.push_back({{"resource_id", st.integer(0)},
                      {"uri", st.text(1)},
                      {"file_name", st.text(2)},
                      {"file_format", st.text(3)},
                      {"category", st.text(4)},
                      {"source", st.text(5)},
                      {"device_group_id", st.int_or_null(6)},
                      {"create_time", st.integer(7)}});
    }
    st.run();
  }
  tx.commit();
  return list;
}

// ---- fitting results ----------------------------------------------------------------------

Value Store::add_fitting_result(std::int64_t sub_process_id, std::int64_t space_id,
                                std::int64_t big_img_id, std::int64_t small_img_id,
                                const Value& fitting_result, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO fitting_results (sub_process_id, space_id, big_img_id, "
                "small_img_id, fitting_result, create_time) VALUES (?1, ?2, ?3, ?4, ?5, ?6)");
  ins.integer(1, sub_process_id).integer(2, space_id).integer(3, big_img_id);
  ins.integer(4, small_img_id).text(5, fitting_result.dump()).integer(6, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return Value{{"fitting_result_id", id},
               {"sub_process_id", sub_process_id},
               {"exp_id_list", Value::array({sub_process_id})},
               {"space_id", space_id},
               {"big_img_id", big_img_id},
               {"small_img_id", small_img_id},
               {"fitting_result", fitting_result},
               {"create_time", time}};
}

Value Store::fitting_results(std::int64_t sub_process_id) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT fitting_result_id, space_id, big_img_id, small_img_id, fitting_result, "
               "create_time FROM fitting_results WHERE sub_process_id = ?1 "
               "ORDER BY fitting_result_id DESC");
  st.integer(1, sub_process_id);
  Value list = Value::array();
  while (st.step()) {
    list.push_back({{"fitting_result_id", st.integer(0)},
                    {"sub_process_id", sub_process_id},
                    {"exp_id_list", Value::array({sub_process_id})},
                    {"space_id", st.integer(1)},
                    {"big_img_id", st.integer(2)},
                    {"small_img_id", st.integer(3)},
                    {"fitting_result", st.json(4)},
                    {"create_time", st.integer(5)}});
  }
  return list;
}

}  // namespace korvalin_client::service
