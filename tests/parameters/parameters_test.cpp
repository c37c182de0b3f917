// Spaces, parameter synchronisation, snapshots, submission, queries and new groups.
#include "support/testing.hpp"

namespace {

using kc::testing::msg;

Value record(const std::string& key, const std::string& value, const std::string& type) {
  return Value::object({{"key", key}, {"value", value}, {"type", type}});
}

Value change(const std::string& key, Value v, const std::string& t, bool deleted = false) {
  return Value::object({{"k_full", key}, {"v", std::move(v)}, {"t", t}, {"deleted_flag", deleted}});
}

Value space(std::int64_t id, const std::string& name) {
  return Value::object({{"space_id", id}, {"space_name", name}});
}

// Group "lab-a" with space "origin" (11) selected and synchronised at 1700000000. Two visible
// spaces share the name "twin"; space 30 is hidden and never listed.
class ParametersTest : public kc::testing::ClientTest {
 protected:
  void SetUp() override {
    service->answer("list_space", Value::object({{"list", {space(11, "origin"), space(20, "twin"),
                                                           space(21, "twin")}}}));
    service->on("get_space_detail", [](const Value& args) {
      const std::int64_t id = args["space_id"];
      if (id == 11) return space(11, "origin");
      if (id == 30) return space(30, "hidden");
      throw kc::RuntimeError("no space " + std::to_string(id));
    });
    service->answer("get_parameter", Value::array({record("/q0/freq", "5.0", "float"),
                                                   record("/q0/name", "alpha", "str"),
                                                   record("/q1/freq", "6.0", "float")}));
    group = std::make_unique<CloudGroup>("lab-a", "origin");
    service->clear_calls();
  }

  std::unique_ptr<CloudGroup> group;
};

// ---- spaces ----

TEST_F(ParametersTest, SpacesAreSelectedByNameOrIdHiddenShownCreatedAndListed) {
  kc::utils::SpaceCache* origin_cache = &group->space();
  group->set_space("twin", false);  // the space listed last under a name wins
  EXPECT_EQ(group->space_id, 21);
  EXPECT_THAT(service->call_names(), ElementsAre("list_space"));
  EXPECT_NE(&group->space(), origin_cache);

  service->clear_calls();
  group->set_space(30, false);  // hidden: selectable by id only
  EXPECT_THAT(service->call_names(), ElementsAre("list_space", "get_space_detail"));
  EXPECT_EQ(group->space_name(), "hidden");
  EXPECT_EQ(group->spaces_name_mapping().at("hidden"), 30);
  EXPECT_TRUE(group->spaces_list().contains(30));

  // The next full listing forgets it again, and by name it was never selectable.
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->set_space("hidden"); }),
            msg("group_space_name_not_found", {"hidden"}));
  EXPECT_FALSE(group->spaces_list().contains(30));

  // An unknown id is selected before the service is asked, and stays selected.
  EXPECT_THROW(group->set_space(99), kc::RuntimeError);
  EXPECT_EQ(group->space_id, 99);
  EXPECT_EQ(group->space_name(), "hidden");

  // Each space keeps its one cache object, already filled: only the changes are asked for.
  service->clear_calls();
  group->set_space("origin");
  EXPECT_THAT(service->call_names(), ElementsAre("list_space", "get_parameter_log"));
  EXPECT_EQ(&group->space(), origin_cache);
  EXPECT_EQ(group->space_cache().size(), 3u);

  // Hiding, showing and creating spaces leave the selection alone.
  service->answer("set_space_hidden", Value::object({{"ok", true}}));
  EXPECT_EQ(group->hide_space(), Value::object({{"ok", true}}));
  group->show_space(5);
  const auto calls = service->calls_of("set_space_hidden");
  EXPECT_EQ(calls[0].args, Value::object({{"space_id", 11}, {"hidden", true}}));
  EXPECT_EQ(calls[1].args, Value::object({{"space_id", 5}, {"hidden", false}}));
  EXPECT_EQ(group->space_id, 11);
  service->answer("create_space", Value::object({{"space_id", 40}}));
  group->create_space("new", "a new space");
  EXPECT_EQ(service->calls_of("create_space")[0].args, Value::parse(R"({"group_name":"lab-a",
      "space_name":"new","description":"a new space"})"));
  EXPECT_FALSE(group->spaces_name_mapping().contains("new"));  // until the next listing

  // A bad listing leaves the maps as far as it got.
  service->answer("list_space", Value::parse(R"({"list":[{"space_id":1,"space_name":"a"},
      {"space_id":2},{"space_id":3,"space_name":"c"}]})"));
  EXPECT_THAT(error_of<kc::KeyError>([&] { group->get_space_list(); }), HasSubstr("space_name"));
  EXPECT_EQ(group->spaces_list().size(), 2u);
  EXPECT_EQ(group->spaces_list().at(2), Value::object({{"space_id", 2}}));
  EXPECT_EQ(group->spaces_name_mapping(), (CloudGroup::SpaceNameMapping{{"a", 1}}));

  service->answer("list_space", Value::object());
  EXPECT_THAT(error_of<kc::KeyError>([&] { group->get_space_list(); }), HasSubstr("list"));
  EXPECT_TRUE(group->spaces_list().empty());
}

// ---- synchronisation ----

// A sync applies each key's latest change at once; another group object that loaded the cache
// before sees the changes at its next load.
TEST_F(ParametersTest, ALoggedSyncAppliesEachKeysLatestChangeAtOnce) {
  CloudGroup other("lab-a", "origin");
  env.advance(100);
  // A bad record anywhere in the log changes nothing.
  service->answer("get_parameter_log",
                  Value::array({change("q0/freq", "9", "int"),
                                Value::object({{"k_full", "q1"}, {"v", "1"}, {"t", "int"}})}));
  EXPECT_THAT(error_of<kc::KeyError>([&] { group->download_space_parameter(); }),
              HasSubstr("deleted_flag"));
  EXPECT_EQ(group->get_local_space_info()["last_updated"], 1700000000);
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 5.0);

  // The service lists the log newest first: the first record of a key is its latest change.
  service->answer("get_parameter_log",
                  Value::array({change("q0/freq", "3", "int"), change("/d", "[1,2]", "list"),
                                change("q0/freq", "2", "int"),
                                change("q0/name", nullptr, "str", true),
                                change("q0/name", "beta", "str")}));
  // Keys come in the order first met walking from the end of the log; deleted ones are not
  // among them.
  EXPECT_THAT(group->download_space_parameter(), ElementsAre("/q0/freq", "/d"));
  EXPECT_EQ(service->calls_of("get_parameter_log").back().args,
            Value::object({{"space_id", 11}, {"timestamp", 1700000000}}));
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 3);
  EXPECT_EQ(group->get_space_parameter("/d"), Value::array({1, 2}));
  EXPECT_FALSE(group->space_parameters.contains("/q0/name"));
  EXPECT_EQ(group->space().count(), 3);
  other.load_parameters_from_local_cache();  // must not trust its own record of the cache
  EXPECT_EQ(other.get_space_parameter("/q0/freq"), 3);
  EXPECT_FALSE(other.space_parameters.contains("/q0/name"));

  // An empty log still records the sync; a refreshing read synchronises first.
  env.advance(100);
  service->answer("get_parameter_log", Value::array());
  EXPECT_TRUE(group->download_space_parameter().empty());
  EXPECT_EQ(group->get_local_space_info()["last_updated"], 1700000200);
  service->answer("get_parameter_log", Value::array({change("q0/freq", "42", "int")}));
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 3);
  EXPECT_EQ(group->get_space_parameter("/q0/freq", true), 42);
}

// An Env whose clock fails after a number of reads, as if the process died there.
struct DyingEnv : kc::testing::FakeEnv {
  double now() override {
    if (reads_left-- == 0) throw kc::Interrupted{"killed"};
    return FakeEnv::now();
  }
  int reads_left = 1;  // the removal reads the clock once; the update's read dies
};

TEST_F(ParametersTest, ASyncCutBetweenRemovalAndUpdateIsRepairedByTheNext) {
  service->answer("get_parameter_log", Value::array({change("/q0/freq", "7.0", "float"),
                                                    change("/q1/freq", nullptr, "float", true)}));
  {
    DyingEnv dying;
    kc::ScopedEnv scope(dying);
    EXPECT_THROW(group->download_space_parameter(), kc::Interrupted);
  }
  EXPECT_EQ(group->get_local_space_info()["last_updated"], 1700000000);

  group->download_space_parameter();
  EXPECT_EQ(service->calls_of("get_parameter_log").back().args["timestamp"], 1700000000);
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 7.0);
  EXPECT_FALSE(group->space_parameters.contains("/q1/freq"));
  CloudGroup fresh("lab-a", "origin");
  EXPECT_EQ(fresh.space_parameters, group->space_parameters);
}

// ---- historical snapshots ----

// Snapshots are fetched once per moment, given in seconds or milliseconds, and kept first in,
// first out; the moment of the last sync is served from the live parameters.
TEST_F(ParametersTest, SnapshotsAreCachedPerMomentFirstInFirstOutAndTheLastSyncIsServedLive) {
  auto first = group->get_history_space_parameter(1690000000);
  EXPECT_EQ(group->get_history_space_parameter(1690000000000), first);  // the same object
  ASSERT_EQ(service->count("get_parameter"), 1);
  EXPECT_EQ(service->calls_of("get_parameter")[0].args,
            Value::parse(R"({"space_id":11,"timestamp":1690000000,"parent_category":null})"));
  EXPECT_EQ(first->at("/q0/name"), "alpha");

  group->get_history_space_parameter(1000000000000);  // exactly 1e12: seconds
  group->get_history_space_parameter(1000000000001);  // above: milliseconds
  const auto calls = service->calls_of("get_parameter");
  EXPECT_EQ(calls[1].args["timestamp"], 1000000000000);
  EXPECT_EQ(calls[2].args["timestamp"], 1000000000);

  const auto put_error = [&](const Value& key) {
    return error_of<kc::TypeError>([&] { group->_put_history_space_cache(key, nullptr); });
  };
  EXPECT_THAT(put_error(Value::array({11})), HasSubstr("cache_key"));
  EXPECT_THAT(put_error(Value::array({11, 5})), HasSubstr("snap"));

  // Selecting a space, even the same one, forgets every snapshot.
  group->set_space(11, false);
  group->get_history_space_parameter(1690000000);
  EXPECT_EQ(service->count("get_parameter"), 4);

  service->clear_calls();
  for (std::int64_t t = 1; t <= 8; ++t) group->get_history_space_parameter(t);
  group->get_history_space_parameter(1);  // cached: reading does not refresh its place
  EXPECT_EQ(service->count("get_parameter"), 8);
  group->get_history_space_parameter(9);  // evicts moment 1, the first stored
  group->get_history_space_parameter(2);
  EXPECT_EQ(service->count("get_parameter"), 9);
  group->get_history_space_parameter(1);
  EXPECT_EQ(service->count("get_parameter"), 10);

  auto snap = group->get_history_space_parameter(1700000000);
  EXPECT_EQ(service->count("get_parameter"), 10);
  EXPECT_EQ(*snap, group->space_parameters);
  EXPECT_NE(snap.get(), &group->space_parameters);  // a copy, not the live map

  // A runtime error while asking the local cache falls back to the service.
  kc::testing::sql(group->space().path(), "DROP TABLE spaces");
  group->set_space(11, false);
  group->get_history_space_parameter(1700000000);
  EXPECT_EQ(service->count("get_parameter"), 11);
}

// ---- submission and removal ----

TEST_F(ParametersTest, SubmissionAndRemovalSendTheChangesThenSynchronise) {
  group->set_space_parameter("q0/freq", 5.5);
  group->set_space_parameter("/q0/list", Value::array({1, 2}));
  service->answer("add_parameter", nullptr);
  group->submit_space_parameter(42, std::nullopt, 7);
  ASSERT_THAT(service->call_names(), ElementsAre("add_parameter", "get_parameter_log"));
  EXPECT_EQ(service->calls()[0].args, Value::parse(R"({"space_id":11,
      "keys":["/q0/freq","/q0/list"],"values":["5.5","[1,2]"],"types":["float","list"],
      "experiment_id":42,"node_id":null,"session_id":7})"));
  EXPECT_TRUE(group->waiting_for_submit.empty());

  // Nothing pending still makes the call, with three empty columns.
  service->clear_calls();
  group->submit_space_parameter();
  EXPECT_EQ(service->calls()[0].args["keys"], Value::array());
  EXPECT_EQ(service->count("get_parameter_log"), 1);

  // A refusal drops the pending changes without a sync; the next sync brings the unsubmitted
  // value back to what the cache holds, as a full reload of the cache would.
  service->clear_calls();
  group->set_space_parameter("/q0/freq", 5.75);
  service->fail("add_parameter", 1, "space is locked");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->submit_space_parameter(); }),
            "space is locked");
  EXPECT_TRUE(group->waiting_for_submit.empty());
  EXPECT_EQ(service->count("get_parameter_log"), 0);
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 5.75);
  group->download_space_parameter();
  EXPECT_EQ(group->get_space_parameter("/q0/freq"), 5.0);

  // Removal deletes each key, then synchronises.
  service->clear_calls();
  service->answer("delete_parameter", nullptr);
  EXPECT_TRUE(group->remove_space_parameter("a/b"));  // one key, not its characters
  EXPECT_TRUE(group->remove_space_parameter(Value::array({"/x", "/y"})));
  EXPECT_TRUE(group->remove_space_parameter(Value::array()));
  EXPECT_THAT(service->call_names(),
              ElementsAre("delete_parameter", "get_parameter_log", "delete_parameter",
                          "delete_parameter", "get_parameter_log", "get_parameter_log"));
  EXPECT_EQ(service->calls()[0].args,
            Value::object({{"space_id", 11}, {"key", "a/b"}, {"delete_status", true}}));

  service->clear_calls();
  service->fail("delete_parameter", 1, "no such key");
  EXPECT_THROW(group->remove_space_parameter(Value::array({"/x", "/y"})), kc::RuntimeError);
  EXPECT_THAT(service->call_names(), ElementsAre("delete_parameter"));
  EXPECT_THROW(group->remove_space_parameter(5), kc::TypeError);
}

// ---- queries ----

// The tree is browsed one level at a time; search needs the read right; history is paged by
// the service.
TEST_F(ParametersTest, TreeSearchAndHistoryQueries) {
  service->answer("get_parameter_tree", Value::parse(R"([{"node_name":"q0","expandable":true},
      {"node_name":"freq","expandable":1,"v":"4.0","t":"float"}])"));
  // Version 0: leaves are read from the live parameters after a sync.
  const Value current =
      group->get_space_parameter_by_tree(std::nullopt, std::vector<std::string>{"q0"});
  EXPECT_EQ(service->calls_of("get_parameter_tree")[0].args,
            Value::object({{"space_id", 11}, {"version", 0}, {"parent_tree", "/q0"}}));
  EXPECT_EQ(service->count("get_parameter_log"), 1);
  EXPECT_EQ(current, Value::parse(R"([
      {"full_key": "/q0/q0", "node_name": "q0", "expandable": true},
      {"full_key": "/q0/freq", "node_name": "freq", "expandable": 1, "v": "5.0", "t": "float"}])"));

  // Another version: leaves carry their own values; the root is the empty path.
  service->clear_calls();
  const Value old = group->get_space_parameter_by_tree(std::nullopt, std::nullopt, 3);
  EXPECT_EQ(service->calls_of("get_parameter_tree")[0].args["parent_tree"], "");
  EXPECT_EQ(service->count("get_parameter_log"), 0);
  EXPECT_EQ(old[1]["full_key"], "/freq");
  EXPECT_EQ(old[1]["v"], "4.0");

  service->clear_calls();
  service->script("check_device_permission_by_name", {Value(false), Value(true), Value(1)});
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { group->search_space_parameters("freq"); }),
            "Permission Denied");
  EXPECT_EQ(service->calls()[0].args, Value::object({{"group_name", "lab-a"}, {"access", "READ"}}));
  EXPECT_EQ(group->search_space_parameters("FREQ"),
            Value::parse(R"([{"full_key": "/q0/freq", "v": "5.0", "t": "float"},
                             {"full_key": "/q1/freq", "v": "6.0", "t": "float"}])"));
  EXPECT_EQ(group->search_space_parameters().size(), 3u);

  service->answer("get_parameter_history", Value::array({Value::array({record("/a", "1", "int")}), 31}));
  EXPECT_EQ(CloudGroup::get_parameter_history(11),
            Value::object({{"list", {record("/a", "1", "int")}}, {"total", 31}}));
  EXPECT_EQ(service->calls_of("get_parameter_history")[0].args,
            Value::object({{"space_id", 11}, {"key", nullptr}, {"page", 1}, {"per_page", 10}}));
  service->answer("get_parameter_history", Value::array({Value::array()}));
  EXPECT_THROW(CloudGroup::get_parameter_history(11, "/a"), kc::KeyError);
}

// ---- groups ----

TEST_F(ParametersTest, ANewGroupComesWithItsOriginSpaceAndStarterFolders) {
  service->answer("create_group", Value::object({{"device_group_id", 9}}));
  service->answer("create_space", Value::object({{"space_id", 21}}));
  service->answer("create_exp_folder", Value::object({{"exp_folder_id", 1}}));
  EXPECT_EQ(CloudGroup::create_group("lab-b", "second lab", 3), Value::object({{"device_group_id", 9}}));
  EXPECT_THAT(service->call_names(), ElementsAre("create_group", "create_space", "create_exp_folder",
                                                 "create_exp_folder", "create_exp_folder"));
  const auto calls = service->calls();
  EXPECT_EQ(calls[1].args, Value::object({{"group_name", "lab-b"}, {"space_name", "origin"},
                                          {"description", "Original experiment space."}}));
  EXPECT_EQ(calls[2].args["exp_folder_name"], "AutoCali");
  EXPECT_EQ(calls[3].args["exp_folder_name"], "Default");
  EXPECT_EQ(calls[4].args, Value::object({{"space_id", 21}, {"exp_folder_name", "Calibration"},
                                          {"parent_exp_folder_id", nullptr}}));

  kc::languages::lang.language = "cn";
  service->clear_calls();
  CloudGroup::create_group("lab-c", "", 3);
  EXPECT_EQ(service->calls()[1].args["description"], "初始实验空间");

  service->answer("get_group_list", Value::object({{"list", Value::array()}}));
  CloudGroup::list_groups();
  EXPECT_EQ(service->calls_of("get_group_list")[0].args,
            Value::object({{"page", 1}, {"per_page", 10}, {"org_id", nullptr}, {"show_hidden", true}}));
}

}  // namespace
