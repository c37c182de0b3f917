// The Store: experiment folders, experiments and their messages.
#include <sqlite3.h>

#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/service/store.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

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

std::optional<Value> read_experiment(sqlite3* db, const std::string& path, std::int64_t id) {
  Statement st(db, path, join({"SELECT ", kExperimentColumns, " WHERE sub_process_id = ?1"}));
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

}  // namespace

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
               join({"SELECT ", kFolderColumns,
                     " WHERE space_id = ?1 AND parent_id IS ?2 ORDER BY exp_folder_id"}));
  st.integer(1, space_id).integer(2, parent);
  Value list = Value::array();
  while (st.step()) list.push_back(folder_record(st));
  return list;
}

// ---- experiments --------------------------------------------------------------------------

Value Store::create_experiment(const NewExperiment& exp, std::int64_t create_time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  const Quota q = read_quota(db_, path_, exp.organization_id);
  if (q.max_queued && q.queued >= *q.max_queued) throw QuotaError::queued(q);
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
  const Reader read = reader();
  Transaction tx(read.db(), path_, false);
  std::optional<Value> record = read_experiment(read.db(), path_, sub_process_id);
  tx.commit();
  return record;
}

Value Store::experiment_messages(std::int64_t sub_process_id) {
  const Reader read = reader();
  Transaction tx(read.db(), path_, false);
  require_row(read.db(), path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1", "experiment",
              sub_process_id);
  Value list = read_messages(read.db(), path_, sub_process_id);
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
               join({"SELECT ", kExperimentColumns,
                     " WHERE space_id = ?1 ORDER BY sub_process_id DESC LIMIT ?2 OFFSET ?3"}));
  st.integer(1, space_id).integer(2, window.limit).integer(3, window.offset);
  Value list = read_experiment_list(st);
  tx.commit();
  return Value{{"list", std::move(list)}, {"total", total}};
}

Value Store::list_new_experiments(std::int64_t space_id, std::int64_t since_id,
                                  std::optional<std::int64_t> folder, std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               join({"SELECT ", kExperimentColumns,
                     " WHERE space_id = ?1 AND sub_process_id > ?2 AND "
                     "(?3 IS NULL OR exp_folder_id = ?3) ORDER BY sub_process_id LIMIT ?4"}));
  st.integer(1, space_id).integer(2, since_id).integer(3, folder).integer(4, limit);
  return Value{{"list", read_experiment_list(st)}};
}

Value Store::list_experiments_by_folder(std::int64_t space_id, std::optional<std::int64_t> folder,
                                        std::optional<std::int64_t> before_id, std::int64_t limit) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               join({"SELECT ", kExperimentColumns,
                     " WHERE space_id = ?1 AND exp_folder_id IS ?2 AND "
                     "(?3 IS NULL OR sub_process_id < ?3) ORDER BY sub_process_id DESC LIMIT ?4"}));
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

std::vector<Store::QueuedRun> Store::next_queued_runs(const std::vector<std::int64_t>& busy_groups,
                                                      std::int64_t limit) {
  Value busy = Value::array();
  for (const std::int64_t group : busy_groups) busy.push_back(group);
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT sub_process_id, device_group_id FROM ("
               "  SELECT sub_process_id, device_group_id, row_number() OVER ("
               "      PARTITION BY device_group_id ORDER BY coalesce(CAST(json_extract(priority, "
               "'$') AS INTEGER), 0) DESC, sub_process_id) AS place "
               "  FROM experiments WHERE status = 'queued' AND device_group_id NOT IN "
               "  (SELECT value FROM json_each(?1))) "
               "WHERE place = 1 ORDER BY sub_process_id LIMIT ?2");
  st.text(1, busy.dump()).integer(2, limit);
  std::vector<QueuedRun> runs;
  while (st.step()) runs.push_back({st.integer(0), st.integer(1)});
  return runs;
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
  require_row(db_, path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1", "experiment",
              sub_process_id);
  Statement ins(db_, path_,
                "INSERT INTO experiment_messages (sub_process_id, time, level, message) "
                "VALUES (?1, ?2, ?3, ?4)");
  ins.integer(1, sub_process_id).integer(2, time).text(3, level).text(4, message).run();
  tx.commit();
}

}  // namespace korvalin_client::service
