// The SQLite helpers the Store's files share: errors that name the file, prepared statements
// and transactions. Private to src/service/.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "korvalin_client/service/store.hpp"
#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::service::sql {

// Joins pieces of SQL text. Out of line on purpose: GCC 12 takes string concatenations that
// it inlines at each call site for out-of-bounds copies (-Warray-bounds).
std::string join(std::initializer_list<std::string_view> parts);

// A RuntimeError "service store <path>: <what>: <SQLite's message>", with the operating
// system's error text when SQLite failed on a file (a full disk, an I/O error).
[[noreturn]] inline void fail(sqlite3* db, const std::string& path, const std::string& what) {
  std::string message = "service store " + path + ": " + what + ": " +
                        (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
  const int code = db != nullptr ? (sqlite3_errcode(db) & 0xff) : SQLITE_NOMEM;
  const int err = db != nullptr ? sqlite3_system_errno(db) : 0;
  if (err != 0 && (code == SQLITE_IOERR || code == SQLITE_FULL || code == SQLITE_CANTOPEN)) {
    message += std::string(" (") + std::strerror(err) + ")";
  }
  throw RuntimeError(message);
}

// A RuntimeError "service store <path>: <what>: <strerror(err)>".
[[noreturn]] inline void fail_errno(const std::string& path, const std::string& what, int err) {
  throw RuntimeError("service store " + path + ": " + what + ": " + std::strerror(err));
}

inline void exec(sqlite3* db, const std::string& path, const char* sql,
                 const char* what = nullptr) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(db, path, what != nullptr ? what : sql);
  }
}

// The prepared statements of one connection, kept for reuse by their SQL text: preparing
// (parsing and planning) costs more than running the small queries a request makes. Only the
// thread holding the connection touches its cache, so it needs no lock of its own; the
// registry that finds a connection's cache is read-mostly.
class StatementCache {
 public:
  StatementCache() = default;
  StatementCache(const StatementCache&) = delete;
  StatementCache& operator=(const StatementCache&) = delete;
  ~StatementCache() {
    for (auto& [sql, stmt] : idle_) sqlite3_finalize(stmt);
  }
  // A kept statement of that text, now the caller's; null when none is kept.
  sqlite3_stmt* take(const std::string& sql) {
    const auto it = idle_.find(sql);
    if (it == idle_.end()) return nullptr;
    sqlite3_stmt* stmt = it->second;
    idle_.erase(it);
    return stmt;
  }
  // Keeps a reset statement (or finalizes it when one of that text is kept already).
  void give(std::string sql, sqlite3_stmt* stmt) {
    if (!idle_.emplace(std::move(sql), stmt).second) sqlite3_finalize(stmt);
  }

  // The cache of a connection that has one (the Store's connections), or null.
  static StatementCache* of(sqlite3* db) {
    std::shared_lock lock(registry_mutex());
    const auto it = registry().find(db);
    return it == registry().end() ? nullptr : it->second.get();
  }
  // Gives `db` a cache; drop() finalizes its statements, before the connection is closed.
  static void add(sqlite3* db) {
    std::unique_lock lock(registry_mutex());
    registry().emplace(db, std::make_unique<StatementCache>());
  }
  static void drop(sqlite3* db) {
    std::unique_lock lock(registry_mutex());
    registry().erase(db);
  }

 private:
  static std::shared_mutex& registry_mutex() {
    static std::shared_mutex m;
    return m;
  }
  static std::unordered_map<sqlite3*, std::unique_ptr<StatementCache>>& registry() {
    static std::unordered_map<sqlite3*, std::unique_ptr<StatementCache>> r;
    return r;
  }
  std::unordered_map<std::string, sqlite3_stmt*> idle_;
};

// A prepared statement, finalized (or, on a connection with a StatementCache, reset and kept)
// on scope exit. Bound text is copied (SQLITE_TRANSIENT).
class Statement {
 public:
  Statement(sqlite3* db, const std::string& path, std::string_view sql)
      : db_(db), path_(path), cache_(StatementCache::of(db)) {
    if (cache_ != nullptr) {
      sql_ = sql;
      stmt_ = cache_->take(sql_);
      if (stmt_ != nullptr) return;
    }
    if (sqlite3_prepare_v3(db, sql.data(), static_cast<int>(sql.size()),
                           cache_ != nullptr ? SQLITE_PREPARE_PERSISTENT : 0, &stmt_,
                           nullptr) != SQLITE_OK) {
      fail(db, path, "cannot prepare a query");
    }
  }
  ~Statement() {
    if (cache_ == nullptr || stmt_ == nullptr) {
      sqlite3_finalize(stmt_);
      return;
    }
    sqlite3_reset(stmt_);
    sqlite3_clear_bindings(stmt_);
    cache_->give(std::move(sql_), stmt_);
  }
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
  StatementCache* cache_;
  std::string sql_;
  sqlite3_stmt* stmt_ = nullptr;
};

// BEGIN IMMEDIATE (a write) or BEGIN (a consistent read), rolled back unless committed.
// A write asks the write-fault hook before it commits (see write_faults.hpp); whatever the
// failure, the destructor rolls back, so the connection is never left inside a transaction.
class Transaction {
 public:
  // A read inside a read transaction already open (a ReadSnapshot's) is part of it.
  Transaction(sqlite3* db, const std::string& path, bool write)
      : db_(db), path_(path), write_(write), nested_(!write && sqlite3_get_autocommit(db) == 0) {
    if (nested_) return;
    if (write) {
      exec(db, path, "BEGIN IMMEDIATE");
    } else {
      Statement(db, path, "BEGIN").run();  // a read's BEGIN and COMMIT are kept prepared
    }
  }
  ~Transaction() {
    if (!committed_ && !nested_ && sqlite3_get_autocommit(db_) == 0) {
      sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() {
    if (nested_) {
      committed_ = true;
      return;
    }
    if (write_) {
      if (const int err = injected_write_error(path_)) fail_errno(path_, "cannot commit", err);
      exec(db_, path_, "COMMIT", "cannot commit");
    } else {
      Statement(db_, path_, "COMMIT").run();
    }
    committed_ = true;
  }

 private:
  sqlite3* db_;
  const std::string& path_;
  bool write_;
  bool nested_;
  bool committed_ = false;
};

inline std::int64_t changes(sqlite3* db) { return sqlite3_changes64(db); }

[[noreturn]] inline void unknown(std::string_view what, std::int64_t id) {
  throw RuntimeError("unknown " + std::string(what) + " " + std::to_string(id));
}

// "unknown <what> <id>" unless `sql` (a SELECT of the row whose id is ?1) finds it.
inline void require_row(sqlite3* db, const std::string& path, std::string_view sql,
                        std::string_view what, std::int64_t id) {
  Statement st(db, path, sql);
  st.integer(1, id);
  if (!st.step()) unknown(what, id);
}

// The record of the row whose `key_column` is `id` ("SELECT " + columns + " WHERE key = ?"),
// read by `record`; nullopt when there is none. Call with the store's mutex held.
inline std::optional<Value> read_by_id(sqlite3* db, const std::string& path, const char* columns,
                                       const char* key_column, std::int64_t id,
                                       Value (*record)(const Statement&)) {
  Statement st(db, path, join({"SELECT ", columns, " WHERE ", key_column, " = ?1"}));
  st.integer(1, id);
  if (!st.step()) return std::nullopt;
  return record(st);
}

inline std::int64_t count(sqlite3* db, const std::string& path, const std::string& sql,
                          const std::function<void(Statement&)>& bind) {
  Statement st(db, path, sql);
  bind(st);
  return st.step() ? st.integer(0) : 0;
}

// An organisation's quota and use, read on `db` (store_quotas.cpp); "unknown organization".
Quota read_quota(sqlite3* db, const std::string& path, std::int64_t organization_id);
// Schema 5, inside the migration's transaction: quotas, object sizes (those of existing
// objects read from their files) and the running totals (store_quotas.cpp).
void migrate_quotas(sqlite3* db, const std::string& path);

}  // namespace korvalin_client::service::sql

namespace korvalin_client::service {

// A read-only connection taken from the Store's pool for one read, given back at scope exit.
// Within a ReadSnapshot it is the snapshot's connection, lent and not given back.
class Store::Reader {
 public:
  Reader(Store& store, sqlite3* db, bool lent = false) : store_(&store), db_(db), lent_(lent) {}
  Reader(Reader&& other) noexcept
      : store_(other.store_), db_(std::exchange(other.db_, nullptr)), lent_(other.lent_) {}
  Reader& operator=(Reader&&) = delete;
  ~Reader() {
    if (db_ == nullptr || lent_) return;
    std::lock_guard lock(store_->readers_mutex_);
    store_->idle_readers_.push_back(db_);
  }
  sqlite3* db() const { return db_; }
  // The connection, now the caller's to give back.
  sqlite3* release() { return std::exchange(db_, nullptr); }

 private:
  Store* store_;
  sqlite3* db_;
  bool lent_;
};

}  // namespace korvalin_client::service
