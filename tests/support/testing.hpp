// What the client's test programs share: gtest and gmock, the fakes, the temporary cache root,
// error_of, short names, and a group the fake service knows.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "support/error_of.hpp"
#include "support/fakes.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;
using kc::testing::error_of;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace korvalin_client::testing {

// Runs `statements` on a database file through SQLite itself, as another program would; the
// first column of each row ("NULL" for null).
inline std::vector<std::string> sql(const std::string& path, const std::string& statements) {
  sqlite3* db = nullptr;
  std::vector<std::string> rows;
  EXPECT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
  const auto keep = [](void* out, int, char** values, char**) {
    static_cast<std::vector<std::string>*>(out)->push_back(values[0] ? values[0] : "NULL");
    return 0;
  };
  EXPECT_EQ(sqlite3_exec(db, statements.c_str(), keep, &rows, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
  sqlite3_close(db);
  return rows;
}

// The text of message `key` of the current language, with `args` put in.
inline std::string msg(const char* key, std::initializer_list<std::string> args = {}) {
  return languages::format(languages::lang.msg(key), args);
}

// Answers the detail of any group as that of group 7 in organization 3 named `organization`.
inline void serve_group(FakeBackend& service, const std::string& organization = "Acme") {
  service.answer("get_group_detail", {{"device_group_id", 7},
                                      {"organization_id", 3},
                                      {"organization_name", organization}});
}

// A test of the client against the fake service: a temporary cache root, a FakeEnv at `start`,
// messages in English, and the group of serve_group() with no parameters in any space.
class ClientTest : public ::testing::Test {
 protected:
  explicit ClientTest(double start = 1700000000.0) : env(start) {
    languages::lang.language = "en";
    serve_group(*service);
    service->answer("get_parameter", Value::array());
    service->answer("get_parameter_log", Value::array());
  }

  TempCacheRoot root;
  ScopedFakeEnv env;
  ScopedFakeBackend service;
};

}  // namespace korvalin_client::testing
