#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/com/device.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "support/fake_backend.hpp"
#include "support/fake_env.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;
using kc::testing::ScopedFakeBackend;
using kc::testing::ScopedFakeEnv;
using kc::testing::TempCacheRoot;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

Value space_record(std::int64_t id, const std::string& name) {
  return Value::object({{"space_id", id}, {"space_name", name}, {"desc", "d"}});
}

class SessionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    kc::languages::lang.language = "en";
    service->on("get_group_detail", [](const Value& args) {
      return Value::object({{"device_group_id", 7},
                            {"organization_id", 3},
                            {"organization_name", "Acme Lab"},
                            {"device_group_name", args["device_group_name"]}});
    });
    service->answer("list_space",
                    Value::object({{"list", Value::array({space_record(11, "origin"),
                                                          space_record(12, "calib")})},
                                   {"total", 2}}));
    service->answer("get_parameter",
                    Value::array({Value::object({{"key", "q0/freq"}, {"value", "5.1"},
                                                 {"type", "float"}}),
                                  Value::object({{"key", "/q0/name"}, {"value", "qubit"},
                                                 {"type", "str"}})}));
    service->answer("get_parameter_log", Value::array());
  }

  std::string group_dir() const { return root.cache_root() + "/lab-a"; }

  TempCacheRoot root;
  ScopedFakeEnv env{1741176000.0};  // 2025-03-05 12:00:00 UTC
  ScopedFakeBackend service;
};

TEST_F(SessionTest, ConstructingWithoutAGroupAsksNothing) {
  CloudGroup g;
  EXPECT_TRUE(service->calls().empty());
  EXPECT_TRUE(g.device_group_id().is_null());
  EXPECT_TRUE(g.organization_id().is_null());
  EXPECT_THROW(g.organization_name(), kc::RuntimeError);
  EXPECT_FALSE(g.space_name().has_value());
  EXPECT_THROW(g.space(), kc::RuntimeError);
  // Operations that name the group fail clearly instead of asking for a group named "".
  EXPECT_THROW(g.get_group_detail(), kc::RuntimeError);
  EXPECT_TRUE(service->calls().empty());

  CloudGroup only_space(std::nullopt, "origin");
  EXPECT_EQ(only_space.space_name(), "origin");
  EXPECT_FALSE(only_space.space_id.has_value());
}

TEST_F(SessionTest, SelectingAGroupResolvesItAndListsItsSpaces) {
  CloudGroup g("lab-a");

  ASSERT_THAT(service->call_names(), ElementsAre("get_group_detail", "list_space"));
  EXPECT_EQ(service->calls()[0].args, Value::object({{"device_group_name", "lab-a"}}));
  EXPECT_EQ(service->calls()[1].args,
            Value::object({{"group_name", "lab-a"}, {"page", 1}, {"per_page", 999999999999},
                           {"show_hidden_space", false}}));

  EXPECT_EQ(g.group_name, "lab-a");
  EXPECT_EQ(g.device_group_id(), 7);
  EXPECT_EQ(g.organization_id(), 3);
  EXPECT_EQ(g.organization_name(), "Acme Lab");
  EXPECT_TRUE(std::filesystem::is_directory(group_dir()));
  EXPECT_EQ(g.spaces_list().size(), 2u);
  EXPECT_EQ(g.spaces_list().at(12)["space_name"], "calib");
  EXPECT_EQ(g.spaces_name_mapping().at("origin"), 11);
  EXPECT_FALSE(g.space_id.has_value());
  EXPECT_FALSE(g.space_name().has_value());
  try {
    g.space();
    FAIL() << "space() without a selected space must fail";
  } catch (const kc::RuntimeError& e) {
    EXPECT_EQ(std::string(e.what()), kc::languages::lang.msg("group_space_id_not_set"));
  }

  // A group object never changes its group.
  service->clear_calls();
  g.set_group_name("lab-b", "origin");
  EXPECT_TRUE(service->calls().empty());
  EXPECT_EQ(g.group_name, "lab-a");
}

TEST_F(SessionTest, SelectingAGroupAndASpaceDownloadsItsParameters) {
  CloudGroup g("lab-a", "origin");

  EXPECT_THAT(service->call_names(),
              ElementsAre("get_group_detail", "list_space", "list_space", "get_parameter"));
  EXPECT_EQ(service->calls_of("get_parameter")[0].args,
            Value::object({{"space_id", 11}, {"timestamp", 1741176000},
                           {"parent_category", nullptr}}));
  EXPECT_EQ(g.space_id, 11);
  EXPECT_EQ(g.space_name(), "origin");
  EXPECT_EQ(g.get_space_parameter("/q0/freq"), 5.1);
  EXPECT_EQ(g.get_space_parameter("/q0/name"), "qubit");
  EXPECT_EQ(g.get_local_space_info()["last_updated"], 1741176000);
  EXPECT_TRUE(std::filesystem::exists(group_dir() + "/space_cache.sqlite3"));

  // A second group object finds the cache filled and only asks for the changes since.
  env.advance(60);
  service->clear_calls();
  CloudGroup again("lab-a", "origin");
  EXPECT_EQ(service->count("get_parameter"), 0);
  ASSERT_EQ(service->count("get_parameter_log"), 1);
  EXPECT_EQ(service->calls_of("get_parameter_log")[0].args["timestamp"], 1741176000);
  EXPECT_EQ(again.get_space_parameter("q0/freq"), 5.1);
}

TEST_F(SessionTest, AFailedSelectionLeavesTheObjectSelectableAgain) {
  service->script("get_group_detail", {Value(nullptr)});
  CloudGroup g;
  // A null record fails at the first read of its fields, before the not-found guard.
  EXPECT_THROW(g.set_group_name("lab-a"), kc::TypeError);
  EXPECT_THROW(g.organization_name(), kc::RuntimeError);

  service->script("get_group_detail",
                  {Value::object({{"device_group_id", 7}, {"organization_id", 3}})});
  try {
    g.set_group_name("lab-a");
    FAIL() << "a record without organization_name must fail";
  } catch (const kc::KeyError& e) {
    EXPECT_THAT(e.what(), HasSubstr("organization_name"));
  }

  // An unknown space name fails after the listing; the group stays unselected.
  try {
    g.set_group_name("lab-a", "nope");
    FAIL() << "an unknown space must fail";
  } catch (const kc::RuntimeError& e) {
    EXPECT_EQ(std::string(e.what()),
              kc::languages::format(kc::languages::lang.msg("group_space_name_not_found"),
                                    {"nope"}));
  }

  g.set_group_name("lab-a", "calib");
  EXPECT_EQ(g.space_id, 12);
  EXPECT_EQ(g.organization_name(), "Acme Lab");
}

TEST_F(SessionTest, ArgumentsOfTheWrongKindAreRefusedBeforeAnyCall) {
  try {
    CloudGroup g("lab-a", std::nullopt, {.space_parameters = Value::array({1})});
    FAIL() << "space_parameters must be a mapping";
  } catch (const kc::TypeError& e) {
    EXPECT_THAT(e.what(), HasSubstr("space_parameters"));
  }
  EXPECT_THROW(CloudGroup("lab-a", std::nullopt, {.temporary_parameters = "x"}), kc::TypeError);
  EXPECT_TRUE(service->calls().empty());

  CloudGroup g("lab-a");
  service->clear_calls();
  try {
    g.set_space(1.5);
    FAIL() << "a real is neither an id nor a name";
  } catch (const kc::TypeError& e) {
    EXPECT_THAT(e.what(), HasSubstr("space_id_or_name"));
  }
  EXPECT_THROW(g.set_space(nullptr), kc::TypeError);
  EXPECT_TRUE(service->calls().empty());
}

TEST_F(SessionTest, ConstructionOptionsReachTheLiveParameters) {
  CloudGroup g("lab-a", "origin",
               {.space_parameters = {{"/q0/amp", 0.5}}, .temporary_parameters = {{"/q0/freq", 6.0}}});
  // The temporary override wins over the downloaded value; the set value waits for submission.
  EXPECT_EQ(g.get_space_parameter("/q0/freq"), 6.0);
  EXPECT_EQ(g.get_space_parameter("/q0/amp"), 0.5);
  EXPECT_EQ(g.waiting_for_submit, Value::object({{"/q0/amp", 0.5}}));
}

TEST_F(SessionTest, EachSpaceKeepsOneCacheObject) {
  service->answer("get_space_detail", space_record(12, "calib"));
  CloudGroup g("lab-a", "origin");
  kc::utils::SpaceCache* first = &g.space();
  EXPECT_EQ(first, &g.space());

  g.set_space(12, false);
  EXPECT_NE(first, &g.space());
  g.set_space("origin", false);
  EXPECT_EQ(first, &g.space());
  EXPECT_EQ(g.space_cache().size(), 2u);
}

TEST_F(SessionTest, GroupDetailIsFetchedAfreshButIdsStay) {
  CloudGroup g("lab-a");
  service->on("get_group_detail", [](const Value&) {
    return Value::object({{"device_group_id", 99}, {"organization_id", 3},
                          {"organization_name", "Acme Lab"}});
  });
  EXPECT_EQ(g.get_group_detail()["device_group_id"], 99);
  EXPECT_EQ(g.device_group_id(), 7);
}

TEST_F(SessionTest, CacheDirectoriesFollowTheLayout) {
  CloudGroup g("lab-a");
  const std::string day = group_dir() + "/exp/20250305";

  EXPECT_EQ(g.create_cache_dir(), group_dir());
  EXPECT_EQ(g.create_result_cache_dir(1741176000, 1234), day + "/1234");
  EXPECT_EQ(g.create_exp_cache_dir(1741176000, 1234), day + "/1234");
  EXPECT_EQ(g.create_exp_cache_dir(1741176000), day);
  EXPECT_EQ(g.create_result_cache_dir(1741176000.9, 0), day + "/0");
  EXPECT_TRUE(std::filesystem::is_directory(day + "/1234"));
  EXPECT_TRUE(std::filesystem::is_directory(day + "/0"));

  // Dates are local dates: the same moment falls on another day east of Greenwich.
  ::setenv("TZ", "JST-9", 1);
  ::tzset();
  EXPECT_EQ(g.create_exp_cache_dir(1741186800, 5), group_dir() + "/exp/20250306/5");

  // Anything already at a path counts as present and is returned as it is.
  std::ofstream(day + "/77").put('x');
  EXPECT_EQ(g.create_exp_cache_dir(1741176000, 77), day + "/77");

  EXPECT_THROW(g.create_exp_cache_dir("yesterday"), kc::TypeError);
  EXPECT_THROW(g.create_exp_cache_dir(1741176000, "1234"), kc::TypeError);
}

TEST_F(SessionTest, GroupNamesMayNestDirectories) {
  CloudGroup g("site/lab-a");
  EXPECT_EQ(g.create_cache_dir(), root.cache_root() + "/site/lab-a");
  EXPECT_TRUE(std::filesystem::is_directory(root.cache_root() + "/site/lab-a"));
}

TEST(ServiceSeam, CallsWithoutABackendFailClearly) {
  auto previous = kc::com::connection_manager::set_backend(nullptr);
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "none");
  try {
    kc::com::device::get_group_detail("lab-a");
    FAIL() << "no backend is installed";
  } catch (const kc::RuntimeError& e) {
    EXPECT_THAT(e.what(), HasSubstr("set_backend"));
  }
  {
    ScopedFakeBackend service;
    EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "fake");
  }
  kc::com::connection_manager::set_backend(previous);
}

}  // namespace
