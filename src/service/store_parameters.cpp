// The Store: parameters, as a change log and the current state derived from it.
#include <sqlite3.h>

#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/service/store.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

// "key >= ?n AND key < ?n+1" for keys starting with `prefix`, or "1" for every key.
std::string prefix_clause(const std::string& prefix, int n) {
  if (prefix.empty()) return "1";
  return join({"key >= ?", std::to_string(n), " AND key < ?", std::to_string(n + 1)});
}
void bind_prefix(Statement& st, const std::string& prefix, int n) {
  if (prefix.empty()) return;
  std::string upper = prefix;
  upper.back() = static_cast<char>(upper.back() + 1);
  st.text(n, prefix).text(n + 1, upper);
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
  Statement st(
      db, path,
      join({"SELECT key, value, type, deleted, max(seq) FROM parameter_changes "
            "WHERE space_id = ?1 AND ",
            column, " <= ?2 AND ", prefix_clause(prefix, 3), " GROUP BY key ORDER BY key"}));
  st.integer(1, space_id).integer(2, bound);
  bind_prefix(st, prefix, 3);
  return read_parameters(st, true);
}

constexpr const char* kChangeColumns =
    "key, value, type, deleted, time, version, experiment_id, node_id, session_id "
    "FROM parameter_changes";

// The space's last version (0 before its first change).
std::int64_t last_version(sqlite3* db, const std::string& path, std::int64_t space_id) {
  Statement st(db, path, "SELECT max(version) FROM parameter_changes WHERE space_id = ?1");
  st.integer(1, space_id);
  return st.step() && !st.is_null(0) ? st.integer(0) : 0;
}

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

}  // namespace

// ---- parameters ---------------------------------------------------------------------------

std::int64_t Store::add_parameters(std::int64_t space_id, const std::vector<Parameter>& parameters,
                                   std::int64_t time, const Value& experiment_id,
                                   const Value& node_id, const Value& session_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement log(db_, path_,
                "INSERT INTO parameter_changes (space_id, key, value, type, deleted, time, "
                "experiment_id, node_id, session_id, version) "
                "VALUES (?1, ?2, ?3, ?4, 0, ?5, ?6, ?7, ?8, ?9)");
  Statement current(db_, path_,
                    "INSERT INTO parameters (space_id, key, value, type, seq) "
                    "VALUES (?1, ?2, ?3, ?4, ?5) ON CONFLICT (space_id, key) DO UPDATE SET "
                    "value = excluded.value, type = excluded.type, seq = excluded.seq");
  std::int64_t version = last_version(db_, path_, space_id);
  for (const Parameter& p : parameters) {
    log.integer(1, space_id).text(2, p.key).value(3, p.value).value(4, p.type).integer(5, time);
    log.value(6, experiment_id).value(7, node_id).value(8, session_id).integer(9, ++version).run();
    current.integer(1, space_id).text(2, p.key).value(3, p.value).value(4, p.type);
    current.integer(5, sqlite3_last_insert_rowid(db_)).run();
  }
  tx.commit();
  return version;
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
  const std::int64_t version = last_version(db_, path_, space_id) + 1;
  Statement log(db_, path_,
                "INSERT INTO parameter_changes (space_id, key, deleted, time, version) "
                "VALUES (?1, ?2, 1, ?3, ?4)");
  log.integer(1, space_id).text(2, key).integer(3, time).integer(4, version).run();
  tx.commit();
  return version;
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
  const bool current = version == 0 || last_version(db_, path_, space_id) <= version;
  std::vector<Parameter> out =
      current ? current_parameters(db_, path_, space_id, prefix)
              : logged_parameters(db_, path_, space_id, "version", version, prefix);
  tx.commit();
  return out;
}

Value Store::parameter_log(std::int64_t space_id, std::int64_t since) {
  std::lock_guard lock(mutex_);
  Statement st(
      db_, path_,
      join({"SELECT ", kChangeColumns, " WHERE space_id = ?1 AND time >= ?2 ORDER BY seq DESC"}));
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
      count(db_, path_, join({"SELECT count(*) FROM parameter_changes", where}), bind);
  Statement st(db_, path_,
               join({"SELECT ", kChangeColumns, where, " ORDER BY seq DESC LIMIT ?3 OFFSET ?4"}));
  bind(st);
  st.integer(3, window.limit).integer(4, window.offset);
  Value list = Value::array();
  while (st.step()) list.push_back(change_record(st));
  tx.commit();
  return Value::array({std::move(list), total});
}

}  // namespace korvalin_client::service
