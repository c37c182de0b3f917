// Users, tokens and rights of the service: tokens kept as hashes and revoked, the right every
// operation of the catalogue needs, organisations that never see each other's data (nor learn
// that it exists), and results, resources and objects that need READ on their group.
#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/testing.hpp"

using kc::service::Caller;
using kc::service::Engine;

namespace {

class RightsTest : public ::testing::Test {
 protected:
  // Calls operation `name` as `caller` (on `on`, by default the test's engine), with the
  // arguments of `named` by name (others null).
  Value call(const Caller& caller, std::string_view name, const Value& named = Value::object(),
             Engine* on = nullptr) {
    const auto& ops = kc::com::kOperations;
    const auto* op =
        std::find_if(std::begin(ops), std::end(ops), [&](const auto& o) { return o.name == name; });
    EXPECT_NE(op, std::end(ops)) << name;
    std::vector<Value> values;
    for (std::string_view arg : op->arguments) {
      values.push_back(kc::get_key(named, std::string(arg)));
    }
    std::vector<const Value*> views;
    for (const Value& v : values) views.push_back(&v);
    return (on != nullptr ? *on : engine).call(caller, op->operation, kc::com::Args(views));
  }
  // The message of the E that calling `name` as `caller` throws.
  template <class E = kc::PermissionError>
  std::string error(const Caller& caller, std::string_view name, const Value& named,
                    Engine* on = nullptr) {
    return error_of<E>([&] { call(caller, name, named, on); });
  }
  // Whether `who` can read the object: its bytes, or what a missing object says.
  bool reads(const Caller& who, const Value& locator) {
    try {
      engine.objects_of(who)->download(locator);
      return true;
    } catch (const kc::RuntimeError& e) {
      EXPECT_THAT(e.what(), HasSubstr("no stored object"));
      return false;
    }
  }
  void rights(const std::string& user, bool read, bool write) {
    engine.set_right(user, "lab", "READ", read);
    engine.set_right(user, "lab", "WRITE", write);
  }

  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv clock{1700000000.0};
  Engine engine;
  // "lab" of the local organisation, owned by the local user; "far" of another one, owned by
  // bob; ana is of the local organisation and holds no right yet.
  Caller ana = engine.add_user("ana");
  Caller bob = engine.add_user("bob", "Elsewhere");
  std::int64_t lab = engine.create_group("lab", "", nullptr)["device_group_id"];
  Value far = call(bob, "create_group", {{"device_group_name", "far"}});
  std::int64_t space = engine.create_space("lab", "origin", "")["space_id"];
  std::int64_t exp =
      engine.create_sub_process(nullptr, "lab", space, "t", "", nullptr, nullptr, nullptr, nullptr,
                                nullptr, nullptr)["sub_process_id"];
  Value piece = engine.store_result_piece(exp, 0, {1, 2, 3}, 0, 9, true);
  std::int64_t resource = engine.add_resource("r", "png", "{}", "image", "SDK", lab)["resource_id"];
};

TEST_F(RightsTest, TokensAreKeptAsHashesWorkUntilRevokedAndNameTheirUser) {
  EXPECT_EQ(kc::service::Store::token_hash("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  const std::string token = engine.create_token("ana");
  const std::string second = engine.create_token("ana");
  EXPECT_TRUE(token.starts_with("kvt_") && token.size() == 68) << token;
  EXPECT_NE(token, second);
  const std::optional<Caller> who = engine.authenticate(token);
  ASSERT_TRUE(who);
  EXPECT_EQ(who->user_id, ana.user_id);
  EXPECT_EQ(who->organization_id, 1);
  EXPECT_EQ(who->user_name, "ana");
  EXPECT_EQ(engine.authenticate(second)->organization_id, 1);

  // The store holds the hash, never the token (nor its random part) in any of its files.
  const std::string db = engine.store().path();
  EXPECT_EQ(kc::testing::sql(db, "SELECT count(*) FROM tokens WHERE token_hash = '" +
                                     kc::service::Store::token_hash(token) + "'"),
            std::vector<std::string>{"1"});
  for (const std::string& file : {db, db + "-wal"}) {
    const kc::Bytes bytes = kc::utils::read_file(file);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text.find(token.substr(4)), std::string::npos) << file;
    EXPECT_EQ(text.find(second.substr(4)), std::string::npos) << file;
  }

  std::string altered = token;
  altered.back() = altered.back() == '0' ? '1' : '0';
  for (const std::string& bad : {std::string(), altered, std::string(1 << 20, 'k')}) {
    EXPECT_FALSE(engine.authenticate(bad)) << bad.substr(0, 80);
  }
  EXPECT_EQ(engine.revoke_tokens("ana"), 2);
  EXPECT_FALSE(engine.authenticate(token));
  EXPECT_FALSE(engine.authenticate(second));
  EXPECT_EQ(engine.revoke_tokens("ana"), 0);
  EXPECT_EQ(engine.authenticate(engine.create_token("ana"))->user_name, "ana");

  // Users: names are unique, organisations found by name or created.
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.add_user("ana", "Elsewhere"); }),
            "user \"ana\" already exists");
  EXPECT_THROW(engine.add_user("local"), kc::RuntimeError);
  EXPECT_THROW(engine.add_user(""), kc::ValueError);
  EXPECT_THROW(engine.add_user("eve\nINFO forged log line"), kc::ValueError);
  EXPECT_EQ(engine.add_user("carol", "Elsewhere").organization_id, bob.organization_id);
  EXPECT_NE(bob.organization_id, 1);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.create_token("nobody"); }),
            "unknown user \"nobody\"");
  // A right is granted on the group of that name in the user's organisation.
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { engine.set_right("bob", "lab", "READ", true); }),
            "unknown device group \"lab\"");
}

// Every operation of the catalogue has its rule here: one added without a rule fails this test.
TEST_F(RightsTest, EveryOperationNeedsItsRightAndNoneReachesAnotherOrganisation) {
  const Value fitting{{"sub_process_id", exp},
                      {"space_id", space},
                      {"big_img_id", resource},
                      {"small_img_id", resource},
                      {"fitting_result", Value::object()}};
  // What each operation needs: READ, WRITE, "group" (the group's organisation alone), or
  // "caller" (its answer depends on who calls: the next test).
  const std::map<std::string, std::pair<std::string, Value>> rules = {
      {"get_group_list", {"caller", {}}},
      {"create_group", {"caller", {}}},
      {"get_group_detail", {"group", {{"device_group_name", "lab"}}}},
      {"list_space", {"READ", {{"group_name", "lab"}}}},
      {"create_space", {"WRITE", {{"group_name", "lab"}, {"space_name", "s"}}}},
      {"get_space_detail", {"READ", {{"space_id", space}}}},
      {"set_space_hidden", {"WRITE", {{"space_id", space}, {"hidden", false}}}},
      {"get_parameter", {"READ", {{"space_id", space}}}},
      {"get_parameter_log", {"READ", {{"space_id", space}}}},
      {"add_parameter",
       {"WRITE",
        {{"space_id", space},
         {"keys", Value::array({"/k"})},
         {"values", Value::array({"1"})},
         {"types", Value::array({"int"})}}}},
      {"delete_parameter", {"WRITE", {{"space_id", space}, {"key", "/k"}}}},
      {"get_parameter_tree", {"READ", {{"space_id", space}, {"version", 0}}}},
      {"get_parameter_history", {"READ", {{"space_id", space}, {"key", "/k"}}}},
      {"create_sub_process", {"WRITE", {{"group_name", "lab"}, {"space_id", space}}}},
      {"get_sub_process_detail", {"READ", {{"sub_process_id", exp}}}},
      {"get_sub_process_result", {"READ", {{"sub_process_id", exp}}}},
      {"get_sub_process_msg", {"READ", {{"sub_process_id", exp}}}},
      {"list_sub_processes", {"READ", {{"space_id", space}}}},
      {"list_new_experiments", {"READ", {{"space_id", space}}}},
      {"list_sub_processes_by_folder", {"READ", {{"space_id", space}}}},
      {"count_experiments_by_folder", {"READ", {{"space_id", space}}}},
      {"terminate_sub_process", {"WRITE", {{"sub_process_id", exp}}}},
      {"download_result_chunk_from_cache", {"READ", {{"sub_process_id", exp}, {"chunk_id", 0}}}},
      {"create_exp_folder", {"WRITE", {{"space_id", space}, {"exp_folder_name", "f"}}}},
      {"list_exp_folders_by_parent", {"READ", {{"device_group_name", "lab"}, {"space_id", space}}}},
      {"add_fitting_result", {"WRITE", fitting}},
      {"get_fitting_result", {"READ", {{"sub_process_id", exp}}}},
      {"add_resource", {"WRITE", {{"uri", "{}"}, {"device_group_id", lab}}}},
      {"get_resource_info", {"caller", {}}},
      {"check_device_permission_by_name", {"caller", {}}},
      {"check_space_permission_by_id", {"caller", {}}},
  };
  // Rights bob holds on "lab" in the store count for nothing: it is not his organisation's.
  engine.store().set_right(bob.user_id, lab, "READ", true);
  engine.store().set_right(bob.user_id, lab, "WRITE", true);
  // What bob is told of ana's organisation's group, space, experiment and resource is what he
  // is told in a store where none of them exists.
  Engine empty(root.path() + "/empty");
  const Caller nobody = empty.add_user("bob", "Elsewhere");
  for (const auto& op : kc::com::kOperations) {
    const std::string name(op.name);
    const auto rule = rules.find(name);
    ASSERT_NE(rule, rules.end()) << "no rule for " << name;
    const auto& [needs, args] = rule->second;
    if (needs == "caller") continue;
    EXPECT_EQ(error<kc::RuntimeError>(bob, name, args),
              error<kc::RuntimeError>(nobody, name, args, &empty))
        << name;
    if (needs == "group") {
      rights("ana", false, false);
      EXPECT_NO_THROW(call(ana, name, args)) << name;
      continue;
    }
    // Refused with the other right alone, answered with this one alone.
    const bool read = needs == "READ";
    rights("ana", !read, read);
    EXPECT_EQ(error(ana, name, args), "user \"ana\" lacks " + needs + " on device group \"lab\"")
        << name;
    rights("ana", read, !read);
    EXPECT_NO_THROW(call(ana, name, args)) << name;
  }
  EXPECT_EQ(engine.get_sub_process_detail(exp)["status"], "canceled");  // ana's terminate
}

TEST_F(RightsTest, AnOrganisationSeesAndTouchesOnlyItsOwn) {
  const auto names = [](const Value& listing) {
    std::vector<std::string> out;
    for (const Value& g : listing["list"]) out.push_back(g["device_group_name"].get<std::string>());
    return out;
  };
  EXPECT_THAT(names(call(bob, "get_group_list")), ElementsAre("far"));
  EXPECT_THAT(names(call(ana, "get_group_list", {{"org_id", 1}})), ElementsAre("lab"));
  EXPECT_THROW(call(bob, "get_group_list", {{"org_id", 1}}), kc::PermissionError);
  EXPECT_THROW(call(bob, "create_group", {{"device_group_name", "x"}, {"organization_id", 1}}),
               kc::PermissionError);

  // Names are an organisation's own: bob's may have a "lab" too, which is the one he selects,
  // and a right is granted on the group of the user's organisation.
  EXPECT_EQ(error<kc::RuntimeError>(bob, "get_group_detail", {{"device_group_name", "lab"}}),
            "unknown device group \"lab\"");
  const std::int64_t bobs_lab =
      call(bob, "create_group", {{"device_group_name", "lab"}})["device_group_id"];
  EXPECT_NE(bobs_lab, lab);
  EXPECT_EQ(call(bob, "get_group_detail", {{"device_group_name", "lab"}})["device_group_id"],
            bobs_lab);
  EXPECT_EQ(call(ana, "get_group_detail", {{"device_group_name", "lab"}})["device_group_id"], lab);
  EXPECT_EQ(error<kc::RuntimeError>(ana, "create_group", {{"device_group_name", "lab"}}),
            "device group \"lab\" already exists");
  engine.set_right("bob", "lab", "READ", false);
  EXPECT_FALSE(engine.store().has_right(bob.user_id, bobs_lab, "READ"));

  const std::int64_t far_space =
      call(bob, "create_space", {{"group_name", "far"}, {"space_name", "s"}})["space_id"];

  // A group's creator holds both rights on it, in their own organisation.
  const Value mine = call(ana, "create_group", {{"device_group_name", "mine"}});
  EXPECT_EQ(mine["organization_id"], 1);
  for (const char* access : {"READ", "WRITE"}) {
    const Value args{{"group_name", "mine"}, {"access", access}};
    EXPECT_EQ(call(ana, "check_device_permission_by_name", args), true);
    EXPECT_EQ(error<kc::RuntimeError>(bob, "check_device_permission_by_name", args),
              "unknown device group \"mine\"");
  }
  EXPECT_EQ(error<kc::RuntimeError>(bob, "check_space_permission_by_id", {{"space_id", space}}),
            "unknown space " + std::to_string(space));
  EXPECT_EQ(call(ana, "check_space_permission_by_id", {{"space_id", space}}), false);
  rights("ana", false, true);
  EXPECT_EQ(call(ana, "check_space_permission_by_id", {{"space_id", space}}), true);

  // Another organisation's folders, resources and objects do not exist for the caller.
  const std::int64_t folder = engine.create_exp_folder(space, "f", nullptr)["exp_folder_id"];
  EXPECT_EQ(error<kc::RuntimeError>(bob, "create_exp_folder", {{"space_id", far_space},
                                                               {"exp_folder_name", "g"},
                                                               {"parent_exp_folder_id", folder}}),
            "unknown experiment folder " + std::to_string(folder));
  const Value ids{{"resource_ids", Value::array({resource})}};
  EXPECT_EQ(call(bob, "get_resource_info", ids)["total"], 0);
  EXPECT_EQ(error<kc::RuntimeError>(bob, "create_sub_process", {{"group_name", "far"},
                                                                 {"space_id", far_space},
                                                                 {"resource_id", resource}}),
            "unknown resource " + std::to_string(resource));
  EXPECT_FALSE(reads(bob, piece));
  EXPECT_EQ(error_of<kc::RuntimeError>([&] {
              engine.objects_of(bob)->download(Value{{"bucket", "org-1"}, {"object", "ab/cd"}});
            }),
            "no stored object \"org-1/ab/cd\"");

  // What names nothing, or is of the wrong kind, gets the method's own error.
  EXPECT_EQ(error<kc::RuntimeError>(bob, "set_space_hidden", {{"space_id", 7}, {"hidden", true}}),
            "unknown space 7");
  EXPECT_THAT(error<kc::TypeError>(ana, "get_space_detail", {{"space_id", "1"}}),
              HasSubstr("space_id"));
  EXPECT_EQ(error<kc::RuntimeError>(ana, "add_resource", {{"uri", "{}"}, {"device_group_id", 99}}),
            "unknown device group 99");
}

// Within one organisation, a group's results, resources and objects need READ on the group.
// (Uploads named by a resource: tests/server/server_test.cpp.)
TEST_F(RightsTest, ResultsResourcesAndObjectsNeedReadOnTheirGroup) {
  const Caller& local = engine.local_caller();
  const Caller carol = engine.add_user("carol");
  const auto info = [&](const Caller& who, const Value& id) {
    return call(who, "get_resource_info", {{"resource_ids", Value::array({id})}})["total"];
  };
  // A resource recorded without a group is its maker's, until an experiment of a group names
  // it: it then joins that group, its object with it. No one else may name it.
  rights("ana", false, true);
  engine.set_right("carol", "lab", "WRITE", true);
  const Value upload = engine.objects_of(ana)->upload("2", {8}, "exp", "kvexp");
  const Value loose = call(ana, "add_resource", {{"uri", upload.dump()}});
  const Value experiment{{"group_name", "lab"}, {"space_id", space}, {"resource_id", loose["resource_id"]}};
  EXPECT_EQ(info(local, loose["resource_id"]), 0);
  EXPECT_EQ(error<kc::RuntimeError>(carol, "create_sub_process", experiment),
            "unknown resource " + kc::to_text(loose["resource_id"]));
  call(ana, "create_sub_process", experiment);  // WRITE alone names what is hers

  struct Case {
    const Caller* who;
    bool read;  // READ on lab
    bool sees;
  };
  const Case cases[] = {{&local, true, true},  {&ana, true, true},   {&ana, false, false},
                        {&carol, false, false}, {&carol, true, true}, {&bob, true, false}};
  for (const Case& c : cases) {
    if (c.who != &bob) engine.set_right(c.who->user_name, "lab", "READ", c.read);
    const std::string who = c.who->user_name + (c.read ? " with READ" : " without READ");
    EXPECT_EQ(reads(*c.who, upload), c.sees) << who;
    EXPECT_EQ(reads(*c.who, piece), c.sees) << who;
    for (const Value& id : {Value(resource), loose["resource_id"]}) {
      EXPECT_EQ(info(*c.who, id), c.sees ? 1 : 0) << who << " resource " << id;
    }
  }
  // A resource of one group is not another group's experiment's.
  rights("ana", true, true);
  call(ana, "create_group", {{"device_group_name", "other"}});
  const std::int64_t other = engine.create_space("other", "s", "")["space_id"];
  EXPECT_THAT(error<kc::ValueError>(ana, "create_sub_process", {{"group_name", "other"},
                                                                {"space_id", other},
                                                                {"resource_id", resource}}),
              HasSubstr("belongs to another device group"));
}

}  // namespace
