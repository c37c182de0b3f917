// Selecting a group and a space, the cache layout, and refusals before the service is asked.
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "korvalin_client/com/device.hpp"
#include "support/testing.hpp"

namespace fs = std::filesystem;
using kc::testing::msg;

namespace {

class SessionTest : public kc::testing::ClientTest {
 protected:
  SessionTest() : ClientTest(1741176000.0) {  // 2025-03-05 12:00:00 UTC
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    service->answer("list_space", Value::parse(R"({"list":[{"space_id":11,"space_name":"origin"},
        {"space_id":12,"space_name":"calib"}],"total":2})"));
    service->answer("get_parameter", Value::parse(R"([{"key":"q0/freq","value":"5.1",
        "type":"float"},{"key":"/q0/name","value":"qubit","type":"str"}])"));
  }

  std::string group_dir() const { return root.cache_root() + "/lab-a"; }
};

TEST_F(SessionTest, NoBackendGroupOrSpaceOrArgumentsOfTheWrongKindAskNothing) {
  const auto installed = kc::com::connection_manager::set_backend(nullptr);
  EXPECT_EQ(kc::com::connection_manager::get_connection_type(), "none");
  EXPECT_THAT(error_of<kc::RuntimeError>([] { kc::com::device::get_group_detail("lab-a"); }),
              HasSubstr("set_backend"));
  kc::com::connection_manager::set_backend(installed);

  CloudGroup g;
  EXPECT_THROW(g.organization_name(), kc::RuntimeError);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { g.space(); }), msg("group_space_id_not_set"));
  // Operations that name the group fail clearly instead of asking for a group named "".
  EXPECT_THROW(g.get_group_detail(), kc::RuntimeError);
  EXPECT_EQ(CloudGroup(std::nullopt, "origin").space_name(), "origin");

  EXPECT_THAT(error_of<kc::TypeError>([] {
                CloudGroup("lab-a", std::nullopt, {.space_parameters = Value::array({1})});
              }),
              HasSubstr("space_parameters"));
  EXPECT_THROW(CloudGroup("lab-a", std::nullopt, {.temporary_parameters = "x"}), kc::TypeError);
  EXPECT_TRUE(service->calls().empty());

  CloudGroup selected("lab-a");
  service->clear_calls();
  EXPECT_THAT(error_of<kc::TypeError>([&] { selected.set_space(1.5); }),
              HasSubstr("space_id_or_name"));
  EXPECT_THROW(selected.set_space(nullptr), kc::TypeError);
  // Nothing that needs a space works without one.
  for (auto op : {+[](CloudGroup& g) { g.download_space_parameter(); },
                  +[](CloudGroup& g) { g.load_parameters_from_local_cache(); },
                  +[](CloudGroup& g) { g.get_local_space_info(); },
                  +[](CloudGroup& g) { g.get_history_space_parameter(5); },
                  +[](CloudGroup& g) { g.hide_space(); }}) {
    EXPECT_EQ(error_of<kc::RuntimeError>([&] { op(selected); }), msg("group_space_id_not_set"));
  }
  EXPECT_TRUE(service->calls().empty());
}

TEST_F(SessionTest, SelectingAGroupResolvesItListsItsSpacesAndCanBeRetriedAfterAFailure) {
  CloudGroup g("lab-a");
  ASSERT_THAT(service->call_names(), ElementsAre("get_group_detail", "list_space"));
  EXPECT_EQ(service->calls()[0].args, Value::object({{"device_group_name", "lab-a"}}));
  EXPECT_EQ(service->calls()[1].args, Value::parse(R"({"group_name":"lab-a","page":1,
      "per_page":999999999999,"show_hidden_space":false})"));
  EXPECT_EQ(g.device_group_id(), 7);
  EXPECT_EQ(g.organization_id(), 3);
  EXPECT_EQ(g.organization_name(), "Acme");
  EXPECT_TRUE(fs::is_directory(group_dir()));
  EXPECT_EQ(g.spaces_list().at(12)["space_name"], "calib");
  EXPECT_EQ(g.spaces_name_mapping().at("origin"), 11);
  EXPECT_FALSE(g.space_id.has_value());

  // The record is fetched afresh on demand, but the ids taken at selection stay.
  service->answer("get_group_detail", Value::parse(R"({"device_group_id":99})"));
  EXPECT_EQ(g.get_group_detail()["device_group_id"], 99);
  EXPECT_EQ(g.device_group_id(), 7);

  // A group object never changes its group.
  service->clear_calls();
  g.set_group_name("lab-b", "origin");
  EXPECT_TRUE(service->calls().empty());
  EXPECT_EQ(g.group_name, "lab-a");

  // A failed selection leaves the object selectable again.
  kc::testing::serve_group(*service);
  service->script("get_group_detail",
                  {Value(nullptr), Value::parse(R"({"device_group_id":7,"organization_id":3})")});
  CloudGroup fresh;
  // A null record fails at the first read of its fields, before the not-found guard.
  EXPECT_THROW(fresh.set_group_name("lab-a"), kc::TypeError);
  EXPECT_THAT(error_of<kc::KeyError>([&] { fresh.set_group_name("lab-a"); }),
              HasSubstr("organization_name"));
  // An unknown space name fails after the listing; the group stays unselected.
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { fresh.set_group_name("lab-a", "nope"); }),
            msg("group_space_name_not_found", {"nope"}));
  fresh.set_group_name("lab-a", "calib");
  EXPECT_EQ(fresh.space_id, 12);
  EXPECT_EQ(fresh.organization_name(), "Acme");
}

TEST_F(SessionTest, SelectingAGroupAndASpaceDownloadsItsParameters) {
  CloudGroup g("lab-a", "origin",
               {.space_parameters = {{"/q0/amp", 0.5}}, .temporary_parameters = {{"/q1/x", 6}}});
  EXPECT_THAT(service->call_names(),
              ElementsAre("get_group_detail", "list_space", "list_space", "get_parameter"));
  EXPECT_EQ(service->calls_of("get_parameter")[0].args,
            Value::parse(R"({"space_id":11,"timestamp":1741176000,"parent_category":null})"));
  EXPECT_EQ(g.space_id, 11);
  EXPECT_EQ(g.space_name(), "origin");
  EXPECT_EQ(g.get_space_parameter("/q0/freq"), 5.1);  // keys are given a leading "/"
  EXPECT_EQ(g.get_space_parameter("/q0/name"), "qubit");
  EXPECT_EQ(g.get_space_parameter("/q1/x"), 6);
  EXPECT_EQ(g.waiting_for_submit, Value::object({{"/q0/amp", 0.5}}));
  EXPECT_EQ(g.get_local_space_info()["last_updated"], 1741176000);
  EXPECT_TRUE(fs::exists(group_dir() + "/space_cache.sqlite3"));

  // A second group object finds the cache filled and only asks for the changes since.
  env.advance(60);
  service->clear_calls();
  CloudGroup again("lab-a", "origin");
  EXPECT_EQ(service->count("get_parameter"), 0);
  ASSERT_EQ(service->count("get_parameter_log"), 1);
  EXPECT_EQ(service->calls_of("get_parameter_log")[0].args["timestamp"], 1741176000);
  EXPECT_EQ(again.get_space_parameter("q0/freq"), 5.1);
}

TEST_F(SessionTest, CacheDirectoriesFollowTheLayout) {
  CloudGroup g("lab-a");
  const std::string day = group_dir() + "/exp/20250305";
  EXPECT_EQ(g.create_cache_dir(), group_dir());
  EXPECT_EQ(g.create_result_cache_dir(1741176000, 1234), day + "/1234");
  EXPECT_EQ(g.create_exp_cache_dir(1741176000), day);
  EXPECT_EQ(g.create_result_cache_dir(1741176000.9, 0), day + "/0");
  EXPECT_TRUE(fs::is_directory(day + "/1234"));
  EXPECT_TRUE(fs::is_directory(day + "/0"));

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

// Group names come from callers and from the service's records; each names one directory of
// the cache root, so none may lead elsewhere, and none is cut short by the file system.
TEST_F(SessionTest, HostileGroupNamesAreRefusedBeforeAnythingIsCreated) {
  const std::string nul("a\0b", 3);
  const std::string long_name(300, 'g');
  // Leads from the cache root to a sibling of the temporary directory, a name nobody else uses.
  const std::string escape = "../../" + fs::path(root.path()).filename().string() + "-escaped";
  const std::vector<std::pair<std::string, std::string>> names = {
      {escape, escape}, {"site/lab-a", "site/lab-a"}, {"/abs", "/abs"},
      {"..", "\"..\""}, {".", "\".\""}, {"", "\"\""}, {nul, "a\\x00b"}, {long_name, long_name}};
  for (const auto& [name, shown] : names) {
    EXPECT_THAT(error_of<kc::RuntimeError>([&] { CloudGroup g(name, "origin"); }),
                HasSubstr(shown));
    EXPECT_THAT(error_of<kc::RuntimeError>([&] { kc::utils::SpaceCache cache(name, 1); }),
                HasSubstr("refusing group name"));
  }
  EXPECT_FALSE(fs::exists(root.cache_root()));
  EXPECT_TRUE(fs::is_empty(root.path()));
  EXPECT_FALSE(fs::exists(root.path() + "-escaped"));

  // The longest name a directory may have is fine.
  const std::string longest(255, 'g');
  CloudGroup g(longest, "origin");
  EXPECT_TRUE(fs::exists(root.cache_root() + "/" + longest + "/space_cache.sqlite3"));
}

}  // namespace
