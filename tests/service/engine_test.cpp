// The embedded service's Engine through its public methods: the records the client reads,
// parameter history semantics, experiments and their results, rights, sharing a store, and
// bad input at the boundary.
#include "korvalin_client/service/engine.hpp"

#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/testing.hpp"

using kc::service::Engine;

namespace {

constexpr double kT0 = 1700000000.0;

class EngineTest : public ::testing::Test {
 protected:
  Value keys_of(const Value& records, const char* key = "key") {
    Value out = Value::array();
    for (const Value& r : records) out.push_back(r[key]);
    return out;
  }
  Value ids_of(const Value& listing) { return keys_of(listing["list"], "sub_process_id"); }
  Value put(const Value& keys, const Value& values) {
    Value types = Value::array();
    for (std::size_t i = 0; i < keys.size(); ++i) types.push_back("str");
    return engine.add_parameter(space, keys, values, types, 7, nullptr, "s1");
  }
  Value submit(const Value& folder = nullptr) {
    return engine.create_sub_process(nullptr, "lab", space, "t", "d", nullptr, nullptr, nullptr,
                                     nullptr, folder, nullptr);
  }

  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv clock{kT0};
  Engine engine;
  Value group = engine.create_group("lab", "bench", 1);
  std::int64_t space = engine.create_space("lab", "origin", "")["space_id"].get<std::int64_t>();
};

TEST_F(EngineTest, GroupsAndSpacesAnswerTheRecordsTheClientReads) {
  EXPECT_EQ(group, Value::parse(R"({"device_group_id":1,"device_group_name":"lab",
      "organization_id":1,"organization_name":"Local","description":"bench","hidden":false,
      "create_time":1700000000})"));
  EXPECT_EQ(engine.get_group_detail("lab"), group);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.create_group("lab", "", 1); }),
            "device group \"lab\" already exists");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.get_group_detail("nope"); }),
            "unknown device group \"nope\"");

  const std::int64_t hidden = engine.create_space("lab", "old", "x")["space_id"];
  engine.set_space_hidden(hidden, true);
  const Value visible = engine.list_space("lab", 1, 10, false);
  EXPECT_EQ(keys_of(visible["list"], "space_name"), Value::parse(R"(["origin"])"));
  EXPECT_EQ(visible["total"], 1);
  const Value all = engine.list_space("lab", 2, 1, true);
  EXPECT_EQ(keys_of(all["list"], "space_name"), Value::parse(R"(["old"])"));
  EXPECT_EQ(all["total"], 2);
  EXPECT_EQ(engine.get_space_detail(hidden)["hidden"], true);

  engine.create_group("other", "", nullptr);
  const Value groups = engine.get_group_list(1, 999999999999, 1, nullptr);
  EXPECT_EQ(keys_of(groups["list"], "device_group_name"), Value::parse(R"(["lab","other"])"));
  EXPECT_EQ(groups["total"], 2);
}

TEST_F(EngineTest, ParameterLogAsOfTreeAndHistoryFollowEveryChange) {
  put({"a/x", "/a/y", "b"}, {"1", "2", "3"});  // versions 1..3 at T0
  // Another space's changes count in that space alone.
  const std::int64_t other = engine.create_space("lab", "other", "")["space_id"];
  EXPECT_EQ(engine.add_parameter(other, {"/z"}, {"1"}, {"int"}, nullptr, nullptr, nullptr)["version"],
            1);
  clock.advance(10);
  put({"/a/x"}, {"10"});  // version 4 at T0+10
  clock.advance(10);
  engine.delete_parameter(space, "a/y", true);  // version 5 at T0+20

  const auto values = [&](const Value& records) {
    Value out = Value::object();
    for (const Value& r : records) out[r["key"].get<std::string>()] = r["value"];
    return out;
  };
  EXPECT_EQ(values(engine.get_parameter(space, nullptr, nullptr)),
            Value::parse(R"({"/a/x":"10","/b":"3"})"));
  EXPECT_EQ(engine.get_parameter(space, nullptr, nullptr)[0],
            Value::parse(R"({"key":"/a/x","value":"10","type":"str"})"));
  EXPECT_EQ(values(engine.get_parameter(space, kT0 + 19, nullptr)),
            Value::parse(R"({"/a/x":"10","/a/y":"2","/b":"3"})"));
  EXPECT_EQ(values(engine.get_parameter(space, kT0 + 5, "a")),
            Value::parse(R"({"/a/x":"1","/a/y":"2"})"));
  EXPECT_EQ(engine.get_parameter(space, kT0 - 1, nullptr), Value::array());

  // Newest first, from the given time on (inclusive).
  const Value log = engine.get_parameter_log(space, kT0 + 10);
  ASSERT_EQ(log.size(), 2u);
  EXPECT_EQ(log[0], Value::parse(R"({"k_full":"/a/y","v":null,"t":null,"deleted_flag":true,
      "timestamp":1700000020,"version":5,"experiment_id":null,"node_id":null,
      "session_id":null})"));
  EXPECT_EQ(log[1]["k_full"], "/a/x");
  EXPECT_EQ(log[1]["experiment_id"], 7);
  EXPECT_EQ(log[1]["session_id"], "s1");

  EXPECT_EQ(engine.get_parameter_tree(space, 0, ""), Value::parse(R"([
      {"node_name":"a","expandable":true},
      {"node_name":"b","expandable":false,"v":"3","t":"str"}])"));
  EXPECT_EQ(keys_of(engine.get_parameter_tree(space, 0, "/a"), "node_name"),
            Value::parse(R"(["x"])"));
  EXPECT_EQ(engine.get_parameter_tree(space, 2, "/a"), Value::parse(R"([
      {"node_name":"x","expandable":false,"v":"1","t":"str"},
      {"node_name":"y","expandable":false,"v":"2","t":"str"}])"));

  const Value history = engine.get_parameter_history(space, "a/x", 1, 1);
  EXPECT_EQ(history[1], 2);
  EXPECT_EQ(keys_of(history[0], "v"), Value::parse(R"(["10"])"));
  EXPECT_EQ(engine.get_parameter_history(space, nullptr, 1, 10)[1], 5);

  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.delete_parameter(space, "/a/y", true); }),
            "space 1 has no parameter \"/a/y\"");
}

TEST_F(EngineTest, ExperimentsFoldersAndListingsPageAsTheClientExpects) {
  const std::int64_t a = engine.create_exp_folder(space, "a", nullptr)["exp_folder_id"];
  const Value b = engine.create_exp_folder(space, "b", a);
  engine.create_exp_folder(space, "a", nullptr);  // duplicate names are allowed
  EXPECT_EQ(b, Value::parse(R"({"exp_folder_id":2,"exp_folder_name":"b",
      "parent_exp_folder_id":1,"space_id":1,"create_time":1700000000})"));
  EXPECT_EQ(keys_of(engine.list_exp_folders_by_parent("lab", space, nullptr), "exp_folder_id"),
            Value::parse("[1,3]"));
  EXPECT_EQ(engine.list_exp_folders_by_parent("lab", space, a).size(), 1u);

  const Value first = submit();
  EXPECT_EQ(first["status"], "queued");
  EXPECT_EQ(first["progress"], "{}");
  EXPECT_EQ(first["space_timestamp"], 1700000000);
  for (int i = 0; i < 3; ++i) submit(b["exp_folder_id"]);  // ids 2..4
  submit();                                                // id 5

  EXPECT_EQ(ids_of(engine.list_sub_processes(space, 2, 2)), Value::parse("[3,2]"));
  EXPECT_EQ(engine.list_sub_processes(space, 1, 2)["total"], 5);
  EXPECT_EQ(ids_of(engine.list_new_experiments(space, 2, nullptr, 2)), Value::parse("[3,4]"));
  EXPECT_EQ(ids_of(engine.list_new_experiments(space, 0, b["exp_folder_id"], nullptr)),
            Value::parse("[2,3,4]"));
  EXPECT_EQ(ids_of(engine.list_sub_processes_by_folder(space, b["exp_folder_id"], 4, 10)),
            Value::parse("[3,2]"));
  EXPECT_EQ(ids_of(engine.list_sub_processes_by_folder(space, nullptr, nullptr, 10)),
            Value::parse("[5,1]"));
  EXPECT_EQ(engine.count_experiments_by_folder(space, b["exp_folder_id"]),
            Value::parse(R"({"count":3})"));

  clock.advance(5);
  engine.set_experiment_status(2, "Completed", Value{{"done", 1}});
  EXPECT_EQ(engine.terminate_sub_process(2)["status"], "complete");
  const Value canceled = engine.terminate_sub_process(1);
  EXPECT_EQ(canceled["status"], "canceled");
  EXPECT_EQ(engine.get_sub_process_msg(1), Value::parse(R"([{"timestamp":1700000005,
      "message_level":"info","message":"terminated by the user"}])"));
  EXPECT_EQ(engine.get_sub_process_detail(2)["progress"], R"({"done":1})");
  EXPECT_EQ(engine.queued_experiments(), (std::vector<std::int64_t>{3, 4, 5}));
}

TEST_F(EngineTest, ResultPiecesAndResources) {
  const std::int64_t exp = submit()["sub_process_id"];
  engine.store_result_piece(exp, 1, {4, 5}, 10, 19, true);
  engine.store_result_piece(exp, 0, {1, 2, 3}, 0, 9, false);

  Value pieces = engine.get_sub_process_result(exp, 0, 99999999999);
  ASSERT_EQ(pieces.size(), 2u);
  Value second = pieces[1];
  second.erase("object");  // a generated name
  EXPECT_EQ(second, Value::parse(R"({"piece_id":1,"chunk_id":1,"resource_id":null,
      "final_piece":true,"item_id_start":10,"item_id_end":19,"bucket":"org-1"})"));
  EXPECT_EQ(engine.get_sub_process_result(exp, 1, 5).size(), 1u);
  EXPECT_EQ(engine.download_result_chunk_from_cache(exp, 0), Value::binary({1, 2, 3}));
  // A result-piece record is a locator too.
  EXPECT_EQ(engine.get_minio_client(1)->download(pieces[1]), (kc::Bytes{4, 5}));
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.download_result_chunk_from_cache(exp, 7); }),
            "experiment 1 has no result piece 7");

  const Value uri = engine.get_minio_client(nullptr)->upload("r", {9}, "exp", "kvres");
  const Value res = engine.add_resource("", "kvres", uri.dump(), "exp", "SDK", 1);
  const std::int64_t rid = res["resource_id"];
  engine.set_result_resource(exp, rid);
  pieces = engine.get_sub_process_result(exp, 0, 9);
  EXPECT_EQ(keys_of(pieces, "resource_id"), Value::array({rid, rid}));

  const Value info = engine.get_resource_info(Value::array({rid, 404}));
  EXPECT_EQ(info["total"], 1);
  EXPECT_EQ(info["list"][0]["uri"], uri.dump());
  EXPECT_EQ(engine.get_minio_client(1)->download(info["list"][0]["uri"]), (kc::Bytes{9}));
  EXPECT_EQ(engine.get_resource_info(rid)["total"], 1);
}

TEST_F(EngineTest, RightsAreDataAndEnginesOnOneStoreSeeEachOthersWrites) {
  EXPECT_EQ(engine.check_device_permission_by_name("lab", nullptr), true);
  EXPECT_EQ(engine.check_space_permission_by_id(space), true);
  engine.set_right("lab", "WRITE", false);
  EXPECT_EQ(engine.check_device_permission_by_name("lab", nullptr), false);
  EXPECT_EQ(engine.check_device_permission_by_name("lab", "READ"), true);
  EXPECT_EQ(engine.check_space_permission_by_id(space), false);
  // The embedded backend's calls are the local user's: the revoked right is refused.
  const Value args[] = {space, Value::array({"/k"}), Value::array({"v"}), Value::array({"str"}),
                        nullptr, nullptr, nullptr};
  const Value* views[] = {&args[0], &args[1], &args[2], &args[3], &args[4], &args[5], &args[6]};
  EXPECT_EQ(error_of<kc::PermissionError>([&] {
              engine.call(kc::com::Operation::add_parameter, kc::com::Args(views));
            }),
            "user \"local\" lacks WRITE on device group \"lab\"");
  engine.set_right("lab", "WRITE", true);
  EXPECT_EQ(engine.call(kc::com::Operation::add_parameter, kc::com::Args(views))["count"], 1);
  engine.set_right("lab", "WRITE", false);

  // Another engine on the same store sees the revocation; writers through both lose nothing,
  // and each engine reads what the other wrote.
  Engine second(root.storage_root());
  EXPECT_EQ(second.check_device_permission_by_name("lab", nullptr), false);

  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      Engine& e = t % 2 == 0 ? engine : second;
      for (int i = 0; i < 25; ++i) {
        const std::string key = "/t" + std::to_string(t) + "/k" + std::to_string(i);
        e.add_parameter(space, {key}, {"v"}, {"str"}, nullptr, nullptr, nullptr);
        e.create_sub_process(nullptr, "lab", space, key, "", nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(engine.get_parameter(space, nullptr, nullptr).size(), 101u);  // and "/k"
  std::set<std::int64_t> versions;
  for (const Value& change : second.get_parameter_log(space, 0))
    versions.insert(change["version"].get<std::int64_t>());
  EXPECT_EQ(versions.size(), 101u);
  EXPECT_EQ(engine.list_sub_processes(space, 1, 1)["total"], 100);
}

TEST_F(EngineTest, BadInputIsAClearErrorNamingWhatWasWrong) {
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.get_space_detail(99); }), "unknown space 99");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.get_sub_process_detail(99); }),
            "unknown experiment 99");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { submit(42); }), "unknown experiment folder 42");
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.get_minio_client(9); }),
            "unknown organization 9");

  // Refusals name the argument at fault.
  using Calls = std::vector<std::pair<std::function<void()>, const char*>>;
  for (const auto& [call, name] :
       Calls{{[&] { engine.get_space_detail("1"); }, "space_id"},
             {[&] { engine.add_parameter(space, {"k"}, {"v"}, {3}, nullptr, nullptr, nullptr); },
              "types[0]"},
             {[&] { engine.get_resource_info("1"); }, "resource_ids"}}) {
    EXPECT_THAT(error_of<kc::TypeError>(call), HasSubstr(name));
  }
  Value deep = 1;
  for (std::size_t i = 0; i <= kc::kMaxValueDepth; ++i) deep = Value::array({std::move(deep)});
  for (const auto& [call, name] :
       Calls{{[&] {
                engine.add_parameter(space, {"k", "j"}, {"v"}, {"str"}, nullptr, nullptr, nullptr);
              },
              "one length"},
             {[&] { put({"a//b"}, {"v"}); }, "keys[0]"},
             {[&] { put({"k"}, {std::string((1 << 20) + 1, 'x')}); }, "values[0]"},
             {[&] { put({"k"}, Value::array({deep})); }, "values[0]"},
             {[&] { engine.list_sub_processes(space, 0, 10); }, "page"},
             {[&] { engine.create_group("../x", "", 1); }, "device_group_name"},
             {[&] { engine.check_device_permission_by_name("lab", "ALL"); }, "access"}}) {
    EXPECT_THAT(error_of<kc::ValueError>(call), HasSubstr(name));
  }

  // What one call may ask for is bounded: a page, the keys of one write, a group's spaces.
  EXPECT_EQ(engine.list_space("lab", 1, 5000, true)["per_page"], kc::service::kMaxPage);
  Value many = Value::array();
  for (std::size_t i = 0; i <= kc::service::kMaxWriteKeys; ++i) many.push_back("/k");
  EXPECT_THAT(error_of<kc::ValueError>([&] { put(many, many); }),
              HasSubstr("at most 100000 keys, not 100001"));
  kc::testing::sql(engine.storage_dir() + "/service.sqlite3",
                   "WITH RECURSIVE n(i) AS (SELECT 2 UNION ALL SELECT i + 1 FROM n WHERE i < 1000) "
                   "INSERT INTO spaces (device_group_id, space_name, description, create_time) "
                   "SELECT " + group["device_group_id"].dump() + ", 's' || i, '', 0 FROM n");
  EXPECT_EQ(engine.list_space("lab", 1, 5000, true)["list"].size(), 1000u);
  EXPECT_EQ(error_of<kc::ValueError>([&] { engine.create_space("lab", "one more", ""); }),
            "cannot create space \"one more\": its device group already holds 1000 spaces, the "
            "most a group may hold");
}

}  // namespace
