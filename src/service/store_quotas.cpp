// The Store's quotas: each organisation's limits and the running total of its objects' bytes
// (docs/decisions/quotas.md).
#include <sqlite3.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "korvalin_client/service/store.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

// Version 5: per-organisation quotas. Each object records its size; triggers keep
// organizations.stored_bytes, the sum of its objects' sizes, in the same transaction as the
// record, so a check reads one row instead of summing files.
constexpr const char* kCreateV5 = R"sql(
ALTER TABLE organizations ADD COLUMN max_bytes INTEGER;
ALTER TABLE organizations ADD COLUMN max_queued INTEGER;
ALTER TABLE organizations ADD COLUMN stored_bytes INTEGER NOT NULL DEFAULT 0;
ALTER TABLE objects ADD COLUMN size INTEGER NOT NULL DEFAULT 0;
CREATE TRIGGER objects_counted AFTER INSERT ON objects BEGIN
  UPDATE organizations SET stored_bytes = stored_bytes + NEW.size
  WHERE organization_id = NEW.organization_id;
END;
CREATE TRIGGER objects_uncounted AFTER DELETE ON objects BEGIN
  UPDATE organizations SET stored_bytes = stored_bytes - OLD.size
  WHERE organization_id = OLD.organization_id;
END;
CREATE TRIGGER objects_resized AFTER UPDATE OF size ON objects BEGIN
  UPDATE organizations SET stored_bytes = stored_bytes - OLD.size + NEW.size
  WHERE organization_id = NEW.organization_id;
END;
CREATE INDEX experiments_by_organization ON experiments (organization_id, status);
)sql";

constexpr const char* kQuotaColumns =
    "SELECT organization_id, max_bytes, max_queued, stored_bytes, (SELECT count(*) FROM "
    "experiments e WHERE e.organization_id = o.organization_id AND e.status = 'queued'), "
    "organization_name "
    "FROM organizations o";

Quota quota_of(const Statement& st) {
  Quota q;
  q.organization_id = st.integer(0);
  if (!st.is_null(1)) q.max_bytes = st.integer(1);
  if (!st.is_null(2)) q.max_queued = st.integer(2);
  q.stored_bytes = st.integer(3);
  q.queued = st.integer(4);
  q.organization_name = st.text(5);
  return q;
}

std::string organisation(std::int64_t id) { return "organisation " + std::to_string(id); }

}  // namespace

std::optional<std::int64_t> Quota::bytes_left() const {
  if (!max_bytes) return std::nullopt;
  return *max_bytes > stored_bytes ? *max_bytes - stored_bytes : 0;
}

QuotaError QuotaError::bytes(const Quota& q, std::int64_t adding) {
  return QuotaError(Limit::bytes, "storage quota reached: " + organisation(q.organization_id) +
                                      " may store " + std::to_string(*q.max_bytes) +
                                      " bytes; it stores " + std::to_string(q.stored_bytes) +
                                      " and this would add " + std::to_string(adding));
}

QuotaError QuotaError::queued(const Quota& q) {
  return QuotaError(Limit::queued, "queue quota reached: " + organisation(q.organization_id) +
                                       " may have " + std::to_string(*q.max_queued) +
                                       " experiments queued; it has " + std::to_string(q.queued));
}

namespace sql {

Quota read_quota(sqlite3* db, const std::string& path, std::int64_t organization_id) {
  Statement st(db, path, join({kQuotaColumns, " WHERE organization_id = ?1"}));
  st.integer(1, organization_id);
  if (!st.step()) unknown("organization", organization_id);
  return quota_of(st);
}

void migrate_quotas(sqlite3* db, const std::string& path) {
  exec(db, path, kCreateV5, "cannot migrate to schema 5");
  // The objects already recorded take the size of their files ("<storage>/objects/<bucket>/
  // <object>"); the triggers add them up.
  const std::string objects = path.substr(0, path.rfind('/') + 1) + "objects/";
  std::vector<std::pair<std::int64_t, std::string>> rows;
  {
    Statement st(db, path, "SELECT organization_id, object FROM objects");
    while (st.step()) rows.emplace_back(st.integer(0), st.text(1));
  }
  Statement up(db, path, "UPDATE objects SET size = ?3 WHERE organization_id = ?1 AND object = ?2");
  for (const auto& [org, object] : rows) {
    struct stat info {};
    const std::string file = objects + "org-" + std::to_string(org) + "/" + object;
    if (object.find("..") != std::string::npos || ::stat(file.c_str(), &info) != 0) continue;
    up.integer(1, org).text(2, object).integer(3, static_cast<std::int64_t>(info.st_size)).run();
  }
}

}  // namespace sql

Quota Store::quota(std::int64_t organization_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  Quota q = read_quota(db_, path_, organization_id);
  tx.commit();
  return q;
}

std::vector<Quota> Store::quotas() {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, false);
  std::vector<Quota> all;
  Statement st(db_, path_, join({kQuotaColumns, " ORDER BY organization_id"}));
  while (st.step()) all.push_back(quota_of(st));
  tx.commit();
  return all;
}

void Store::set_quota(std::int64_t organization_id, std::optional<std::int64_t> max_bytes,
                      std::optional<std::int64_t> max_queued) {
  if ((max_bytes && *max_bytes < 0) || (max_queued && *max_queued < 0)) {
    throw ValueError("a quota must not be negative: " + organisation(organization_id));
  }
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(
      db_, path_,
      "UPDATE organizations SET max_bytes = ?2, max_queued = ?3 WHERE organization_id = ?1");
  up.integer(1, organization_id).integer(2, max_bytes).integer(3, max_queued).run();
  if (changes(db_) == 0) unknown("organization", organization_id);
  tx.commit();
}

}  // namespace korvalin_client::service
