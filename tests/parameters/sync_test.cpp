#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "support/fake_backend.hpp"
#include "support/fake_env.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

Value change(const std::string& key, Value v, const std::string& t, Value deleted = false) {
  return Value::object({{"k_full", key}, {"v", std::move(v)}, {"t", t}, {"deleted_flag", deleted}});
}

class SyncTest : public ::testing::Test {
 protected:
  void SetUp() override {
    service->answer("get_group_detail", Value::object({{"device_group_id", 7},
                                                       {"organization_id", 3},
                                                       {"organization_name", "Acme"}}));
    service->answer("list_space",
                    Value::object({{"list", Value::array({Value::object(
                                                {{"space_id", 11}, {"space_name", "origin"}})})}}));
    service->answer("get_parameter",
                    Value::array({Value::object({{"key", "/a"}, {"value", "0"}, {"type", "int"}}),
                                  Value::object({{"key", "/b"}, {"value", "1"}, {"type", "int"}}),
                                  Value::object({{"key", "c"}, {"value", "x"}, {"type", "str"}})}));
    group = std::make_unique<CloudGroup>("lab-a", "origin");
    env.advance(100);
    service->clear_calls();
  }

  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  kc::testing::ScopedFakeBackend service;
  std::unique_ptr<CloudGroup> group;
};

TEST_F(SyncTest, FullDownloadPrefixesKeys) {
  EXPECT_EQ(group->space_parameters.size(), 3u);
  EXPECT_EQ(group->get_space_parameter("/c"), "x");
  EXPECT_EQ(group->space().count(), 3);
}

TEST_F(SyncTest, TheEarliestLoggedChangeOfAKeyWins) {
  // The service lists the log newest first: the first record of a key is its latest change.
  service->answer("get_parameter_log",
                  Value::array({change("a", "3", "int"), change("/d", "[1,2]", "list"),
                                change("a", "2", "int"), change("b", nullptr, "int", true),
                                change("b", "5", "int")}));
  const auto written = group->download_space_parameter();

  // Keys come in the order first met walking from the end of the log.
  EXPECT_THAT(written, ElementsAre("/a", "/d"));
  EXPECT_EQ(group->get_space_parameter("/a"), 3);
  EXPECT_EQ(group->get_space_parameter("/d"), Value::array({1, 2}));
  // "b" was deleted (its earliest record is the deletion) and given unprefixed to the cache.
  EXPECT_FALSE(group->space_parameters.contains("/b"));
  EXPECT_EQ(group->space().count(), 3);
  EXPECT_EQ(service->calls_of("get_parameter_log")[0].args,
            Value::object({{"space_id", 11}, {"timestamp", 1700000000}}));
}

TEST_F(SyncTest, AnEmptyLogStillRecordsTheSync) {
  service->answer("get_parameter_log", Value::array());
  EXPECT_TRUE(group->download_space_parameter().empty());
  EXPECT_EQ(group->get_local_space_info()["last_updated"], 1700000100);
}

TEST_F(SyncTest, ABadLogRecordChangesNothing) {
  service->answer("get_parameter_log",
                  Value::array({change("a", "9", "int"),
                                Value::object({{"k_full", "b"}, {"v", "1"}, {"t", "int"}})}));
  try {
    group->download_space_parameter();
    FAIL() << "a record without deleted_flag must fail";
  } catch (const kc::KeyError& e) {
    EXPECT_THAT(e.what(), HasSubstr("deleted_flag"));
  }
  EXPECT_EQ(group->get_local_space_info()["last_updated"], 1700000000);
  EXPECT_EQ(group->get_space_parameter("/a"), 0);
}

TEST_F(SyncTest, NothingHappensWithoutASelectedSpace) {
  CloudGroup bare("lab-a");
  service->clear_calls();
  const std::string no_space = kc::languages::lang.msg("group_space_id_not_set");
  for (auto op : {+[](CloudGroup& g) { g.download_space_parameter(); },
                  +[](CloudGroup& g) { g.load_parameters_from_local_cache(); },
                  +[](CloudGroup& g) { g.get_local_space_info(); }}) {
    try {
      op(bare);
      FAIL() << "expected a failure";
    } catch (const kc::RuntimeError& e) {
      EXPECT_EQ(std::string(e.what()), no_space);
    }
  }
  EXPECT_TRUE(service->calls().empty());
}

TEST_F(SyncTest, ARefreshingReadSynchronisesFirst) {
  service->answer("get_parameter_log", Value::array({change("a", "42", "int")}));
  EXPECT_EQ(group->get_space_parameter("/a"), 0);
  EXPECT_EQ(service->count("get_parameter_log"), 0);
  EXPECT_EQ(group->get_space_parameter("/a", true), 42);
  EXPECT_EQ(service->count("get_parameter_log"), 1);
}

}  // namespace
