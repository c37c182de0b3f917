// The Store: organisations, users, their tokens and their rights.
#include <openssl/evp.h>
#include <sqlite3.h>

#include <string>
#include <utility>

#include "korvalin_client/service/store.hpp"
#include "store_files.hpp"
#include "store_sqlite.hpp"

namespace korvalin_client::service {

using namespace sql;

namespace {

constexpr const char* kTokenPrefix = "kvt_";
constexpr std::size_t kTokenRandomBytes = 32;

User user_record(const Statement& st) { return User{st.integer(0), st.integer(1), st.text(2)}; }

}  // namespace

// ---- organisations ------------------------------------------------------------------------

Value Store::organization(std::int64_t organization_id) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT organization_id, organization_name FROM organizations "
               "WHERE organization_id = ?1");
  st.integer(1, organization_id);
  if (!st.step()) unknown("organization", organization_id);
  return Value{{"organization_id", st.integer(0)}, {"organization_name", st.text(1)}};
}

std::int64_t Store::find_or_create_organization(const std::string& name) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement find(db_, path_,
                 "SELECT organization_id FROM organizations WHERE organization_name = ?1");
  find.text(1, name);
  if (find.step()) return find.integer(0);  // nothing written: the rollback is harmless
  Statement ins(db_, path_, "INSERT INTO organizations (organization_name) VALUES (?1)");
  ins.text(1, name).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return id;
}

// ---- users --------------------------------------------------------------------------------

User Store::add_user(const std::string& user_name, std::int64_t organization_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  {
    Statement taken(db_, path_, "SELECT 1 FROM users WHERE user_name = ?1");
    taken.text(1, user_name);
    if (taken.step()) throw RuntimeError("user \"" + user_name + "\" already exists");
    require_row(db_, path_, "SELECT 1 FROM organizations WHERE organization_id = ?1",
                "organization", organization_id);
  }
  Statement ins(db_, path_, "INSERT INTO users (user_name, organization_id) VALUES (?1, ?2)");
  ins.text(1, user_name).integer(2, organization_id).run();
  const std::int64_t id = sqlite3_last_insert_rowid(db_);
  tx.commit();
  return User{id, organization_id, user_name};
}

std::optional<User> Store::find_user(const std::string& user_name) {
  std::lock_guard lock(mutex_);
  Statement st(db_, path_,
               "SELECT user_id, organization_id, user_name FROM users WHERE user_name = ?1");
  st.text(1, user_name);
  if (!st.step()) return std::nullopt;
  return user_record(st);
}

// ---- tokens -------------------------------------------------------------------------------

std::string Store::token_hash(std::string_view token) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(token.data(), token.size(), digest, &size, EVP_sha256(), nullptr) != 1) {
    throw RuntimeError("cannot compute the SHA-256 of a token");
  }
  constexpr const char* kHex = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * size);
  for (unsigned int i = 0; i < size; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 0xf];
  }
  return hex;
}

std::string Store::create_token(std::int64_t user_id, std::int64_t time) {
  std::string token = kTokenPrefix + files::random_hex(kTokenRandomBytes);
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  require_row(db_, path_, "SELECT 1 FROM users WHERE user_id = ?1", "user", user_id);
  Statement ins(db_, path_,
                "INSERT INTO tokens (user_id, token_hash, create_time) VALUES (?1, ?2, ?3)");
  ins.integer(1, user_id).text(2, token_hash(token)).integer(3, time).run();
  tx.commit();
  return token;
}

// The lookup is by the hash, through the index: how long it takes tells nothing about the
// tokens the store holds, so no comparison needs to be constant-time.
std::optional<User> Store::user_of_token(const std::string& token_hash) {
  const Reader read = reader();
  Statement st(read.db(), path_,
               "SELECT u.user_id, u.organization_id, u.user_name FROM tokens t "
               "JOIN users u USING (user_id) WHERE t.token_hash = ?1 AND NOT t.revoked");
  st.text(1, token_hash);
  if (!st.step()) return std::nullopt;
  return user_record(st);
}

std::int64_t Store::revoke_tokens(std::int64_t user_id) {
  std::lock_guard lock(mutex_);
  Transaction tx(db_, path_, true);
  Statement up(db_, path_, "UPDATE tokens SET revoked = 1 WHERE user_id = ?1 AND NOT revoked");
  up.integer(1, user_id).run();
  const std::int64_t n = changes(db_);
  tx.commit();
  return n;
}

// ---- rights -------------------------------------------------------------------------------

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
  const Reader read = reader();
  Statement st(read.db(), path_,
               "SELECT 1 FROM rights WHERE user_id = ?1 AND device_group_id = ?2 AND access = ?3");
  st.integer(1, user_id).integer(2, device_group_id).text(3, access);
  return st.step();
}

}  // namespace korvalin_client::service
