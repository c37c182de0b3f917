// The Store: device groups and spaces.
#include <sqlite3.h>

#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/service/store.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

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

}  // namespace

// ---- device groups ------------------------------------------------------------------------

Value Store::create_group(const std::string& name, const std::string& description,
                          std::int64_t organization_id, std::int64_t owner, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  {
    Statement taken(db_, path_,
                    "SELECT 1 FROM device_groups WHERE organization_id = ?1 AND "
                    "device_group_name = ?2");
    taken.integer(1, organization_id).text(2, name);
    if (taken.step()) throw RuntimeError("device group \"" + name + "\" already exists");
    require_row(db_, path_, "SELECT 1 FROM organizations WHERE organization_id = ?1",
                "organization", organization_id);
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

std::optional<Value> Store::find_group(const std::string& name, std::int64_t organization_id) {
  const Reader read = reader();
  Statement st(read.db(), path_,
               join({"SELECT ", kGroupColumns,
                     " WHERE g.organization_id = ?1 AND g.device_group_name = ?2"}));
  st.integer(1, organization_id).text(2, name);
  if (!st.step()) return std::nullopt;
  return group_record(st);
}

std::optional<Value> Store::find_group(std::int64_t device_group_id) {
  const Reader read = reader();
  return read_by_id(read.db(), path_, kGroupColumns, "device_group_id", device_group_id, group_record);
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
      join({"SELECT count(*) FROM device_groups g JOIN organizations o USING (organization_id)",
            where}),
      bind);
  Statement st(
      db_, path_,
      join({"SELECT ", kGroupColumns, where, " ORDER BY g.device_group_id LIMIT ?3 OFFSET ?4"}));
  bind(st);
  st.integer(3, window.limit).integer(4, window.offset);
  Value list = Value::array();
  while (st.step()) list.push_back(group_record(st));
  tx.commit();
  return Value{{"list", std::move(list)}, {"total", total}};
}

// ---- spaces -------------------------------------------------------------------------------

Value Store::create_space(std::int64_t device_group_id, const std::string& name,
                          const std::string& description, std::int64_t time,
                          std::int64_t max_spaces) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  const std::int64_t spaces =
      count(db_, path_, "SELECT count(*) FROM spaces WHERE device_group_id = ?1",
            [&](Statement& st) { st.integer(1, device_group_id); });
  if (spaces >= max_spaces) {
    throw ValueError("cannot create space \"" + name + "\": its device group already holds " +
                     std::to_string(spaces) + " spaces, the most a group may hold");
  }
  Statement ins(db_, path_,
                "INSERT INTO spaces (device_group_id, space_name, description, create_time) "
                "VALUES (?1, ?2, ?3, ?4)");
  ins.integer(1, device_group_id).text(2, name).text(3, description).integer(4, time).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return *read_by_id(db_, path_, kSpaceColumns, "space_id", id, space_record);
}

std::optional<Value> Store::find_space(std::int64_t space_id) {
  const Reader read = reader();
  return read_by_id(read.db(), path_, kSpaceColumns, "space_id", space_id, space_record);
}

Value Store::list_spaces(std::int64_t device_group_id, bool show_hidden, PageWindow window) {
  std::lock_guard lock(mutex_);
  const std::string where = " WHERE device_group_id = ?1 AND (?2 OR NOT hidden)";
  Transaction tx(db_, path_, false);
  const auto bind = [&](Statement& st) {
    st.integer(1, device_group_id).integer(2, show_hidden ? 1 : 0);
  };
  const std::int64_t total = count(db_, path_, join({"SELECT count(*) FROM spaces", where}), bind);
  Statement st(db_, path_,
               join({"SELECT ", kSpaceColumns, where, " ORDER BY space_id LIMIT ?3 OFFSET ?4"}));
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

}  // namespace korvalin_client::service
