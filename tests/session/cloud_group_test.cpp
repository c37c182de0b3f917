// Selecting a group and a space, the cache layout, and refusals before the service is asked.
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "korvalin_client/com/device.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "korvalin_client/service/executor.hpp"
#include "support/testing.hpp"

namespace fs = std::filesystem;
using kc::testing::msg;
using ::testing::AllOf;

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

// A group's directory is the cache root + "/" + its name as it stands: "/" nests, and no name
// leads out of the root or onto the directory of another name. The service refuses to create
// such a group, and the client refuses it wherever it came from (the fake service answers for
// any name).
TEST_F(SessionTest, GroupNamesNestBelowTheCacheRootAndNoneLeadsOutOfIt) {
  const std::string part(255, 'g');  // the longest name a directory may have
  // Leads from the cache root to a sibling of the temporary directory, a name nobody else uses.
  const std::string escape = "../../" + fs::path(root.path()).filename().string() + "-escaped";
  struct Case {
    std::string name;
    std::string refusal;  // empty: the group works end to end
  };
  const std::vector<Case> cases = {
      {"site/lab-a", ""},         {part + "/lab-a", ""},
      {escape, "\"..\" part"},    {"site/../../x", "\"..\" part"},
      {"..", "\"..\" part"},      {"/abs", "absolute path"},
      {".", "\".\" part"},        {"site/./lab-a", "\".\" part"},
      {"site//lab-a", "empty part"}, {"site/", "empty part"},
      {"", "empty"},              {std::string("a\0b", 3), "NUL"},
      {"site\\lab-a", "backslash"}, {part + "g", "256 bytes"}};

  auto engine = std::make_shared<kc::service::Engine>(root.path() + "/store");
  const std::string service_root = root.cache_root() + "/services/" + engine->service_identity();
  const auto entries = [&] {
    std::vector<std::string> all;
    for (const auto& e : fs::recursive_directory_iterator(root.path())) all.push_back(e.path());
    return all;
  };
  for (const auto& [name, refusal] : cases) {
    const std::string shown = name.find('\0') == std::string::npos ? name : "a\\x00b";
    SCOPED_TRACE(shown);
    if (refusal.empty()) {
      kc::testing::ScopedBackend<kc::service::EmbeddedBackend> embedded(
          std::make_shared<kc::service::EmbeddedBackend>(engine));
      CloudGroup::create_group(name, "", 1);
      CloudGroup g(name, "origin");
      const std::string dir = service_root + "/" + name;
      EXPECT_EQ(g.create_cache_dir(), dir);
      g.set_space_parameter("/q0/freq", 5.1);
      g.submit_space_parameter();
      EXPECT_EQ(g.get_local_space_info()["path"], dir + "/space_cache.sqlite3");
      EXPECT_EQ(CloudGroup(name, "origin").get_space_parameter("/q0/freq"), 5.1);

      auto exp = g.create_exp("scan", "");
      exp.sweep("/q0/amp", {0.1, 0.2, 0.3}).measure_quantity("I");
      const std::string id = g.submit_exp(exp).dump();
      EXPECT_TRUE(kc::service::Executor(engine, {.items_per_piece = 2}).run_once());
      EXPECT_EQ(g.pull_result(std::stoll(id)).size(), 3u);
      const std::string exp_dir = dir + "/exp/20250305/" + id;
      EXPECT_TRUE(fs::is_regular_file(exp_dir + "/" + id + ".kvexp"));
      EXPECT_TRUE(fs::is_regular_file(exp_dir + "/complete_" + id + ".kvres"));
      continue;
    }
    const auto before = entries();
    EXPECT_THAT(error_of<kc::ValueError>([&] { engine->create_group(name, "", 1); }),
                AllOf(HasSubstr("device_group_name"), HasSubstr(refusal)));
    const std::string refused = "refusing group name \"" + shown + "\": ";
    EXPECT_THAT(error_of<kc::RuntimeError>([&] { CloudGroup g(name, "origin"); }),
                AllOf(HasSubstr(refused), HasSubstr(refusal)));
    EXPECT_THAT(error_of<kc::RuntimeError>([&] { kc::utils::SpaceCache cache(name, 1); }),
                AllOf(HasSubstr(refused), HasSubstr(refusal)));
    EXPECT_EQ(entries(), before);
  }
  EXPECT_FALSE(fs::exists(root.path() + "-escaped"));

  // Each part may be as long as a file name, but the space cache's path is bounded by SQLite.
  EXPECT_THAT(error_of<kc::RuntimeError>([&] { CloudGroup g(part + "/" + part, "origin"); }),
              AllOf(HasSubstr(part + "/" + part), HasSubstr("more than the 512 SQLite opens")));
}

}  // namespace
