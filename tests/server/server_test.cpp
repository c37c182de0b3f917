// `korvalin serve` as a program on a loopback port, spoken to byte by byte: who may do what,
// and hostile requests, each refused clearly while the server goes on serving.
#include <filesystem>
#include <set>

#include "support/raw_http.hpp"
#include "support/server_process.hpp"
#include "support/testing.hpp"

namespace {

using kc::testing::ServerProcess;

using Answer = kc::testing::RawAnswer;
using Connection = kc::testing::RawConnection;

std::set<std::string> files_under(const std::string& dir) {
  std::set<std::string> out;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir)) out.insert(e.path());
  return out;
}

class Served : public ::testing::Test {
 protected:
  kc::testing::TempCacheRoot root;
  std::string storage = root.path() + "/served";
  ServerProcess server{{.storage_dir = storage, .extra_args = {"--max-body", "100000"}}};
  std::string ana = kc::testing::user_with_token(storage, "ana");
  Connection http{server.port()};

  // A refusal may close its connection (one without a token, say): each call has its own.
  Answer call(const std::string& operation, const Value& args, const std::string& token) {
    Connection fresh(server.port());
    return fresh.request("POST", "/api/v1/" + operation, args.dump(), token);
  }
};

TEST_F(Served, TokensRightsAndOrganisationsAreEnforcedOnEveryOperation) {
  EXPECT_EQ(http.request("GET", "/health").status, 200);
  const Value lab = {{"device_group_name", "lab"}, {"description", ""}, {"organization_id", nullptr}};
  const Answer none = call("device/create_group", lab, "");
  EXPECT_EQ(none.status, 401);
  EXPECT_EQ(none.kind(), "AuthenticationError");
  EXPECT_EQ(call("device/create_group", lab, ana + "x").status, 401);
  ASSERT_EQ(call("device/create_group", lab, ana).status, 200);
  const Value space = call("space/create_space",
                           {{"group_name", "lab"}, {"space_name", "origin"}, {"description", ""}}, ana)
                          .json();
  const Value add = {{"space_id", space["space_id"]},
                     {"keys", {"/a"}}, {"values", {"1"}}, {"types", {"int"}}};
  EXPECT_EQ(call("space/add_parameter", add, ana).status, 200);

  // The owner loses WRITE: writes are refused naming it, reads go on.
  kc::testing::korvalin_admin(storage, {"right", "revoke", "ana", "lab", "WRITE"});
  const Answer refused = call("space/add_parameter", add, ana);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(refused.kind(), "PermissionError");
  EXPECT_THAT(refused.message(), HasSubstr("WRITE"));
  EXPECT_EQ(call("space/get_parameter", {{"space_id", space["space_id"]}}, ana).status, 200);

  // Another organisation neither sees nor touches ana's group, and she does not see theirs:
  // what is hers answers exactly as what does not exist.
  const std::string bob = kc::testing::user_with_token(storage, "bob", "elsewhere");
  const std::string sid = kc::to_text(space["space_id"]);
  const struct {
    std::string operation, key;
    Value hers;
    std::string message;
  } unknown[] = {
      {"device/get_group_detail", "device_group_name", "lab", "unknown device group \"lab\""},
      {"space/get_parameter", "space_id", space["space_id"], "unknown space " + sid},
      {"space/get_space_detail", "space_id", space["space_id"], "unknown space " + sid},
      {"sub_process/get_sub_process_detail", "sub_process_id", 99, "unknown experiment 99"},
  };
  for (const auto& u : unknown) {
    const Answer a = call(u.operation, {{u.key, u.hers}}, bob);
    EXPECT_EQ(a.status, 422) << u.operation;
    EXPECT_EQ(a.kind(), "RuntimeError") << u.operation;
    EXPECT_EQ(a.message(), u.message) << u.operation;
  }
  const Value list = {{"page", 1}, {"per_page", 10}, {"org_id", nullptr}, {"show_hidden", nullptr}};
  EXPECT_EQ(call("device/get_group_list", list, bob).json()["total"], 0);
  EXPECT_EQ(call("device/get_group_list", list, ana).json()["total"], 1);
  // Names and versions are an organisation's own: bob's "lab" is his, created without
  // knowing his organisation's id, and his space's first change is its version 1.
  const Answer bobs = call("device/create_group", lab, bob);
  ASSERT_EQ(bobs.status, 200) << bobs.body;
  EXPECT_NE(bobs.json()["device_group_id"], call("device/get_group_detail",
                                                 {{"device_group_name", "lab"}}, ana).json()["device_group_id"]);
  const Value far = call("space/create_space",
                         {{"group_name", "lab"}, {"space_name", "origin"}, {"description", ""}}, bob)
                        .json();
  Value bobs_add = add;
  bobs_add["space_id"] = far["space_id"];
  EXPECT_EQ(call("space/add_parameter", bobs_add, bob).json()["version"], 1);

  // A revoked token is refused at once, though the server keeps running.
  kc::testing::korvalin_admin(storage, {"token", "revoke", "ana"});
  EXPECT_EQ(call("space/get_parameter", {{"space_id", space["space_id"]}}, ana).status, 401);
  EXPECT_EQ(http.request("GET", "/api/v1/service", "", bob).json()["user_name"], "bob");
  // The log names method, path, status and user, never a token.
  EXPECT_TRUE(kc::testing::wait_until(
      [&] { return server.log().find("/api/v1/service 200") != std::string::npos; },
      std::chrono::seconds(10)));
  EXPECT_THAT(server.log(), HasSubstr("POST /api/v1/space/add_parameter 403"));
  EXPECT_EQ(server.log().find(ana.substr(4)), std::string::npos);
  EXPECT_EQ(server.log().find(bob.substr(4)), std::string::npos);
  // SIGTERM stops it cleanly.
  EXPECT_EQ(server.stop(), 0);
}

// Within an organisation, objects and resources need READ on their group: an upload is its
// uploader's alone until a resource of a group names it. Another organisation never reads it.
TEST_F(Served, ObjectsAndResourcesNeedReadOnTheirGroup) {
  const Value lab = {{"device_group_name", "lab"}, {"description", ""}, {"organization_id", nullptr}};
  ASSERT_EQ(call("device/create_group", lab, ana).status, 200);
  const std::int64_t group = call("device/get_group_detail", {{"device_group_name", "lab"}}, ana)
                                 .json()["device_group_id"];
  const std::string carol = kc::testing::user_with_token(storage, "carol");
  const std::string dave = kc::testing::user_with_token(storage, "dave");
  const std::string bob = kc::testing::user_with_token(storage, "bob", "elsewhere");
  kc::testing::korvalin_admin(storage, {"right", "grant", "carol", "lab", "READ"});
  const auto put = [&](const std::string& data) {
    return http.request("PUT", "/api/v1/objects?name=d&category=exp&format=kvexp", data, ana,
                        "application/octet-stream")
        .json();
  };
  const auto get = [&](const Value& locator, const std::string& token) {
    Connection own(server.port());
    return own.request("GET", "/api/v1/objects/" + locator["bucket"].get<std::string>() + "/" +
                                  locator["object"].get<std::string>(), "", token);
  };
  const auto resource = [&](const Value& locator, const std::string& token) {
    return call("oss/add_resource",
                {{"file_name", ""}, {"file_format", "kvexp"}, {"uri", locator.dump()},
                 {"category", "exp"}, {"source", "SDK"}, {"device_group_id", group}},
                token);
  };
  const Value definition = put("definition");
  const Value other = put("other");
  // Only ana reads what she uploaded; no one else may name it in a record.
  EXPECT_EQ(get(definition, ana).body, "definition");
  EXPECT_EQ(resource(other, carol).status, 403);  // carol lacks WRITE on lab
  kc::testing::korvalin_admin(storage, {"right", "grant", "dave", "lab", "WRITE"});
  const Answer taken = resource(other, dave);
  EXPECT_EQ(taken.status, 422);
  EXPECT_THAT(taken.message(), HasSubstr("no stored object"));
  const Value named = resource(definition, ana).json();
  const Value ids = {{"resource_ids", Value::array({named["resource_id"]})}};
  // Who reads the object and sees its resource once it is lab's: READ on lab, nothing else.
  // The others are told what they are told of an object that does not exist.
  const auto path = [](const Value& locator) {
    return locator["bucket"].get<std::string>() + "/" + locator["object"].get<std::string>();
  };
  const Value missing{{"bucket", definition["bucket"]}, {"object", "ab/none.kvexp"}};
  EXPECT_EQ(get(missing, ana).message(), "no stored object \"" + path(missing) + "\"");
  const struct {
    std::string who, token;
    bool reads;
  } cases[] = {{"ana", ana, true}, {"carol", carol, true}, {"dave", dave, false},
               {"bob", bob, false}};
  for (const auto& c : cases) {
    for (const Value& locator : {definition, other}) {
      const bool reads = locator == definition ? c.reads : c.who == "ana";
      const Answer got = get(locator, c.token);
      EXPECT_EQ(got.status, reads ? 200 : 404) << c.who << " " << path(locator);
      if (!reads) {
        EXPECT_EQ(got.message(), "no stored object \"" + path(locator) + "\"");
      }
    }
    EXPECT_EQ(call("oss/get_resource_info", ids, c.token).json()["total"], c.reads ? 1 : 0)
        << c.who;
  }
}

// Quotas an administrator sets: an upload is refused from its announced length before a body
// byte is read, a chunked one once it passes, nothing of either kept; a submission past the
// queue quota is refused. Each names the organisation, the limit and the use.
TEST_F(Served, QuotasRefuseUploadsAndSubmissionsClearlyAndKeepNothing) {
  const auto put = [&](const std::string& data) {
    Connection own(server.port());
    return own.request("PUT", "/api/v1/objects?name=d&category=exp&format=kvexp", data, ana,
                       "application/octet-stream");
  };
  const Value definition = put("0123456789").json();
  kc::testing::korvalin_admin(storage, {"quota", "set", "1", "--bytes", "100", "--queued", "0"});
  const Value shown =
      Value::parse(kc::testing::korvalin_admin(storage, {"quota", "show", "1", "--json"}));
  EXPECT_EQ(shown[0]["stored_bytes"], 10);
  EXPECT_EQ(shown[0]["max_bytes"], 100);
  const std::set<std::string> stored = files_under(storage + "/objects");

  Connection announced(server.port());
  announced.send(Connection::head("PUT", "/api/v1/objects?name=big", ana,
                                  "application/octet-stream", 1000));
  const Answer early = announced.read_answer();  // no body sent
  EXPECT_EQ(early.status, 413);
  EXPECT_EQ(early.kind(), "RuntimeError");
  EXPECT_EQ(early.message(), "storage quota reached: organisation 1 may store 100 bytes; it "
                             "stores 10 and this would add 1000");
  Connection chunked(server.port());
  chunked.send("PUT /api/v1/objects?name=c HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + ana +
               "\r\nTransfer-Encoding: chunked\r\n\r\nc8\r\n" + std::string(200, 'c') +
               "\r\n0\r\n\r\n");
  const Answer streamed = chunked.read_answer();
  EXPECT_EQ(streamed.status, 413);
  EXPECT_THAT(streamed.message(), HasSubstr("storage quota reached: organisation 1 may store"));
  EXPECT_EQ(put(std::string(91, 'x')).status, 413);  // a small body, come with its head
  EXPECT_EQ(files_under(storage + "/objects"), stored);
  EXPECT_EQ(put(std::string(90, 'x')).status, 200);  // exactly the quota

  const Value lab = {{"device_group_name", "lab"}, {"description", ""}, {"organization_id", nullptr}};
  ASSERT_EQ(call("device/create_group", lab, ana).status, 200);
  const Value space = call("space/create_space",
                           {{"group_name", "lab"}, {"space_name", "s"}, {"description", ""}}, ana)
                          .json();
  const Value resource = call("oss/add_resource",
                              {{"file_name", ""},
                               {"file_format", "kvexp"},
                               {"uri", definition.dump()},
                               {"category", "exp"},
                               {"source", "SDK"}},
                              ana)
                             .json();
  const Answer queued = call("sub_process/create_sub_process",
                             {{"organization_id", nullptr},
                              {"group_name", "lab"},
                              {"space_id", space["space_id"]},
                              {"title", "t"},
                              {"desc", ""},
                              {"resource_id", resource["resource_id"]}},
                             ana);
  EXPECT_EQ(queued.status, 429);
  EXPECT_EQ(queued.message(),
            "queue quota reached: organisation 1 may have 0 experiments queued; it has 0");
}

TEST_F(Served, HostileRequestsAreRefusedAndTheServerServesOn) {
  const std::set<std::string> before = files_under(root.path());
  struct Case {
    std::string method, path, body, type;
    int status;
    std::string kind;
  };
  const std::string deep = std::string(600, '[') + std::string(600, ']');
  const std::string big = "{\"device_group_name\": \"" + std::string(200000, 'x') + "\"}";
  const Case cases[] = {
      {"POST", "/api/v1/device/get_group_detail", "{\"device_group_name\": ", "application/json", 400, "ValueError"},
      {"POST", "/api/v1/device/get_group_detail", "\xc1\x01", "application/msgpack", 400, "ValueError"},
      {"POST", "/api/v1/device/get_group_detail", "\x81\xa1", "application/msgpack", 400, "ValueError"},
      {"POST", "/api/v1/device/get_group_detail", deep, "application/json", 400, "ValueError"},
      {"POST", "/api/v1/device/get_group_detail", "[1]", "application/json", 400, "TypeError"},
      {"POST", "/api/v1/device/get_group_detail", "{\"x\": 1}", "application/json", 400, "TypeError"},
      {"POST", "/api/v1/device/get_group_detail", "{}", "text/plain", 400, "ValueError"},
      {"POST", "/api/v1/device/get_group_detail", big, "application/json", 413, "ValueError"},
      {"POST", "/api/v1/device/no_such_thing", "{}", "application/json", 404, "RuntimeError"},
      {"POST", "/api/v1/device/create_group", "{\"device_group_name\": \"../../escape\", \"description\": \"\", \"organization_id\": null}", "application/json", 400, "ValueError"},
      {"GET", "/api/v1/objects/org-1/../../service.sqlite3", "", "", 400, "ValueError"},
      {"GET", "/api/v1/objects/org-1/%2e%2e/%2e%2e/service.sqlite3", "", "", 400, "ValueError"},
      {"GET", "/api/v1/objects/org-2/ab/cd.kvres", "", "", 404, "RuntimeError"},
      {"GET", "/" + std::string(5000, 'a'), "", "", 414, "ValueError"},
      {"GET", "/x%0a2026-01-01T00:00:00Z%20GET%20/forged", "", "", 404, "RuntimeError"},
  };
  for (const Case& c : cases) {
    Connection own(server.port());
    const Answer a = own.request(c.method, c.path, c.body, ana, c.type);
    EXPECT_EQ(a.status, c.status) << c.path << " " << c.body.substr(0, 40) << ": " << a.body;
    if (a.status == c.status) {
      EXPECT_EQ(a.kind(), c.kind) << a.body;
    }
    // The next request is served, on a connection of its own where the server closed this one.
    Connection next(server.port());
    EXPECT_EQ(next.request("GET", "/health").status, 200) << c.path;
  }
  // No request forges a line of the log.
  EXPECT_TRUE(kc::testing::wait_until(
      [&] { return server.log().find("/forged") != std::string::npos; }, std::chrono::seconds(10)));
  EXPECT_THAT(server.log(), HasSubstr("/x%0a2026"));
  EXPECT_THAT(server.log(), ::testing::Not(HasSubstr("\n2026-01-01")));
  // An object's name is kept in its locator only, never used as a path.
  const Answer put = http.request("PUT", "/api/v1/objects?name=..%2F..%2F..%2Fescaped&category=x&format=bin",
                                  "data", ana, "application/octet-stream");
  ASSERT_EQ(put.status, 200) << put.body;
  const Value locator = put.json();
  const Answer got = http.request(
      "GET", "/api/v1/objects/" + locator["bucket"].get<std::string>() + "/" +
                 locator["object"].get<std::string>(), "", ana);
  EXPECT_EQ(got.body, "data");
  EXPECT_EQ(got.type, "application/octet-stream");
  // A second server on the same address is refused, never handed a share of its connections.
  kc::testing::ChildProcess second({KORVALIN_PROGRAM, "serve", "--listen",
                                    "127.0.0.1:" + std::to_string(server.port()), "--storage",
                                    storage + "-second"},
                                   root.path() + "/second.out");
  EXPECT_EQ(second.wait(), 1);
  EXPECT_THAT(second.output(), HasSubstr("Address already in use"));
  for (const std::string& f : files_under(root.path())) {
    if (!before.contains(f) && f.rfind(root.path() + "/second", 0) != 0) {
      EXPECT_EQ(f.rfind(storage, 0), 0u) << f << " was written outside the store";
    }
  }
}

}  // namespace
