// The Store: result pieces, resources and fitting results.
#include <sqlite3.h>

#include <string>
#include <utility>
#include <vector>

#include "korvalin_client/service/store.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

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

// ---- result pieces ------------------------------------------------------------------------

void Store::add_result_piece(const ResultPiece& piece) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  require_row(db_, path_, "SELECT 1 FROM experiments WHERE sub_process_id = ?1", "experiment",
              piece.sub_process_id);
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
  const Reader read = reader();
  Statement st(read.db(), path_,
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

// ---- objects ------------------------------------------------------------------------------

namespace {

// Whether user ?3 may read the row "r" (an object or a resource): READ on its group, or no
// group and `maker` is the user.
std::string readable_by(const char* maker) {
  return join({"((r.device_group_id IS NULL AND r.", maker,
               " = ?3) OR EXISTS (SELECT 1 FROM rights WHERE user_id = ?3 AND "
               "device_group_id = r.device_group_id AND access = 'READ'))"});
}

void claim(sqlite3* db, const std::string& path, std::int64_t organization_id,
           const std::string& object, std::int64_t device_group_id, std::int64_t time) {
  Statement up(db, path,
               "INSERT INTO objects (organization_id, object, device_group_id, create_time) "
               "VALUES (?1, ?2, ?3, ?4) ON CONFLICT (organization_id, object) DO UPDATE SET "
               "device_group_id = coalesce(device_group_id, excluded.device_group_id)");
  up.integer(1, organization_id).text(2, object).integer(3, device_group_id).integer(4, time);
  up.run();
}

}  // namespace

void Store::add_object(std::int64_t organization_id, const std::string& object,
                       std::optional<std::int64_t> uploader, std::int64_t size,
                       std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  const Quota q = read_quota(db_, path_, organization_id);
  if (const auto left = q.bytes_left(); left && size > *left) throw QuotaError::bytes(q, size);
  Statement ins(db_, path_,
                "INSERT INTO objects (organization_id, object, uploader, size, create_time) "
                "VALUES (?1, ?2, ?3, ?4, ?5)");
  ins.integer(1, organization_id).text(2, object).integer(3, uploader).integer(4, size);
  ins.integer(5, time).run();
  tx.commit();
}

bool Store::may_read_object(const Viewer& viewer, const std::string& object) {
  const Reader read = reader();
  Statement st(read.db(), path_,
               join({"SELECT 1 FROM objects r WHERE organization_id = ?1 AND object = ?2 AND ",
                     readable_by("uploader")}));
  st.integer(1, viewer.organization_id).text(2, object).integer(3, viewer.user_id);
  return st.step();
}

std::optional<std::int64_t> Store::object_group(std::int64_t organization_id,
                                                const std::string& object) {
  const Reader read = reader();
  Statement st(read.db(), path_,
               "SELECT device_group_id FROM objects WHERE organization_id = ?1 AND object = ?2");
  st.integer(1, organization_id).text(2, object);
  if (!st.step() || st.is_null(0)) return std::nullopt;
  return st.integer(0);
}

void Store::claim_object(std::int64_t organization_id, const std::string& object,
                         std::int64_t device_group_id, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  claim(db_, path_, organization_id, object, device_group_id, time);
  tx.commit();
}

// ---- resources ----------------------------------------------------------------------------

Value Store::add_resource(const NewResource& r, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement ins(db_, path_,
                "INSERT INTO resources (file_name, file_format, uri, category, source, "
                "device_group_id, organization_id, create_time, creator) "
                "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)");
  ins.text(1, r.file_name).text(2, r.file_format).text(3, r.uri).text(4, r.category);
  ins.text(5, r.source).integer(6, r.device_group_id).integer(7, r.organization_id);
  ins.integer(8, time).integer(9, r.creator).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  if (r.object && r.device_group_id) {
    claim(db_, path_, r.organization_id, *r.object, *r.device_group_id, time);
  }
  tx.commit();
  return Value{{"resource_id", id},
               {"file_name", r.file_name},
               {"file_format", r.file_format},
               {"uri", r.uri},
               {"category", r.category},
               {"source", r.source},
               {"device_group_id", r.device_group_id ? Value(*r.device_group_id) : Value(nullptr)},
               {"organization_id", r.organization_id},
               {"create_time", time}};
}

Value Store::resources(const std::vector<std::int64_t>& resource_ids,
                       const std::optional<Viewer>& viewer) {
  const Reader read = reader();
  Transaction tx(read.db(), path_, false);
  Statement st(read.db(), path_,
               join({"SELECT resource_id, uri, file_name, file_format, category, source, "
                     "device_group_id, create_time, organization_id FROM resources r "
                     "WHERE resource_id = ?1 AND (?2 IS NULL OR (organization_id = ?2 AND ",
                     readable_by("creator"), "))"}));
  Value list = Value::array();
  for (const std::int64_t id : resource_ids) {
    st.integer(1, id);
    if (viewer) {
      st.integer(2, viewer->organization_id).integer(3, viewer->user_id);
    } else {
      st.integer(2, std::nullopt).integer(3, std::nullopt);
    }
    if (st.step()) {
      list.push_back({{"resource_id", st.integer(0)},
                      {"uri", st.text(1)},
                      {"file_name", st.text(2)},
                      {"file_format", st.text(3)},
                      {"category", st.text(4)},
                      {"source", st.text(5)},
                      {"device_group_id", st.int_or_null(6)},
                      {"organization_id", st.integer(8)},
                      {"create_time", st.integer(7)}});
    }
    st.run();
  }
  tx.commit();
  return list;
}

void Store::claim_resource(std::int64_t resource_id, std::int64_t device_group_id,
                           const std::optional<std::string>& object, std::int64_t time) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_,
               "UPDATE resources SET device_group_id = ?2 WHERE resource_id = ?1 AND "
               "device_group_id IS NULL RETURNING organization_id");
  up.integer(1, resource_id).integer(2, device_group_id);
  const bool claimed = up.step();
  const std::int64_t organization_id = claimed ? up.integer(0) : 0;
  up.run();
  if (claimed && object) claim(db_, path_, organization_id, *object, device_group_id, time);
  tx.commit();
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
