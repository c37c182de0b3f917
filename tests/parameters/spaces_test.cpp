#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/languages.hpp"
#include "support/error_of.hpp"
#include "support/fake_backend.hpp"
#include "support/fake_env.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::group::CloudGroup;
using kc::testing::error_of;
using ::testing::ElementsAre;

namespace {

Value space(std::int64_t id, const std::string& name) {
  return Value::object({{"space_id", id}, {"space_name", name}});
}

class SpacesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kc::languages::lang.language = "en";
    service->answer("get_group_detail", Value::object({{"device_group_id", 7},
                                                       {"organization_id", 3},
                                                       {"organization_name", "Acme"}}));
    // Two visible spaces share a name; space 30 is hidden and never listed.
    service->answer("list_space", Value::object({{"list", {space(10, "origin"), space(20, "twin"),
                                                           space(21, "twin")}}}));
    service->on("get_space_detail", [](const Value& args) {
      const std::int64_t id = args["space_id"];
      if (id == 30) return space(30, "hidden");
      throw kc::RuntimeError("no space " + std::to_string(id));
    });
    service->answer("get_parameter", Value::array());
    group = std::make_unique<CloudGroup>("lab-a");
    service->clear_calls();
  }

  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env;
  kc::testing::ScopedFakeBackend service;
  std::unique_ptr<CloudGroup> group;
};

TEST_F(SpacesTest, SelectionByNameOrIdAndTheirServiceCalls) {
  group->set_space("twin", false);  // the space listed last under a name wins
  EXPECT_EQ(group->space_id, 21);
  EXPECT_THAT(service->call_names(), ElementsAre("list_space"));

  service->clear_calls();
  group->set_space(30, false);  // hidden: selectable by id only
  EXPECT_THAT(service->call_names(), ElementsAre("list_space", "get_space_detail"));
  EXPECT_EQ(group->space_name(), "hidden");
  EXPECT_EQ(group->spaces_name_mapping().at("hidden"), 30);
  EXPECT_TRUE(group->spaces_list().contains(30));

  // The next full listing forgets it again, and by name it was never selectable.
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->set_space("hidden"); }),
            kc::languages::format(kc::languages::lang.msg("group_space_name_not_found"), {"hidden"}));
  EXPECT_FALSE(group->spaces_list().contains(30));

  // An unknown id is selected before the service is asked, and stays selected.
  EXPECT_THROW(group->set_space(99), kc::RuntimeError);
  EXPECT_EQ(group->space_id, 99);
  EXPECT_EQ(group->space_name(), "hidden");

  service->clear_calls();
  group->set_space("origin");
  EXPECT_THAT(service->call_names(), ElementsAre("list_space", "get_parameter"));
}

TEST_F(SpacesTest, HidingAndShowingActOnTheGivenOrSelectedSpace) {
  service->answer("set_space_hidden", Value::object({{"ok", true}}));
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->hide_space(); }),
            kc::languages::lang.msg("group_space_id_not_set"));
  group->set_space("origin", false);
  EXPECT_EQ(group->hide_space(), Value::object({{"ok", true}}));
  group->show_space(5);
  const auto calls = service->calls_of("set_space_hidden");
  EXPECT_EQ(calls[0].args, Value::object({{"space_id", 10}, {"hidden", true}}));
  EXPECT_EQ(calls[1].args, Value::object({{"space_id", 5}, {"hidden", false}}));
  EXPECT_EQ(group->space_id, 10);  // hiding leaves the selection alone

  service->answer("create_space", Value::object({{"space_id", 40}}));
  group->create_space("new", "a new space");
  EXPECT_EQ(service->calls_of("create_space")[0].args,
            Value::object({{"group_name", "lab-a"}, {"space_name", "new"}, {"description", "a new space"}}));
  EXPECT_FALSE(group->spaces_name_mapping().contains("new"));  // until the next listing
}

}  // namespace
