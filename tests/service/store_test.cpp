// The stores' files: the database files the Store refuses, its creation that stays atomic
// across processes, the service identity and the migration from version 1, writes that fail;
// the object store's round trips, locators that try to leave it, and the temporaries that dead
// writers leave.
#include "korvalin_client/service/store.hpp"

#include <signal.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>

#include "korvalin_client/service/engine.hpp"
#include "korvalin_client/service/object_store.hpp"
#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

namespace fs = std::filesystem;
using kc::service::ObjectStore;
using kc::service::Store;
using kc::testing::ChildProcess;

namespace {

using kc::testing::sql;
using Rows = std::vector<std::string>;

std::vector<std::string> names_in(const std::string& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) names.push_back(entry.path().filename());
  return names;
}

// A forked process running `body` whose first write waits until the test's go(), once it told
// the test's wait_ready() that it got there.
std::function<bool(ChildProcess&)> held_at_first_write(std::function<bool()> body) {
  return [body](ChildProcess& self) {
    kc::service::set_write_fault_hook([&self, held = false](const std::string&) mutable {
      if (!std::exchange(held, true)) self.meet();
      return 0;
    });
    return body();
  };
}

class StoreTest : public ::testing::Test {
 protected:
  std::string dir(const std::string& name) { return root.path() + "/" + name; }
  std::string file(const std::string& name) { return dir(name) + "/" + Store::kFileName; }

  kc::testing::TempCacheRoot root;
};

TEST_F(StoreTest, UnusableFilesAreRefusedNamingTheFileAndLeftAsTheyAre) {
  const auto real_store = [&](const std::string& name) {
    Store(dir(name)).create_group("lab", std::string(100'000, 'd'), 1, 1, 0);
  };
  const auto write = [&](const std::string& name, const kc::Bytes& bytes) {
    fs::create_directories(dir(name));
    kc::utils::write_file_atomic(file(name), bytes);
  };
  write("empty", {});
  write("random", kc::Bytes(4096, 0x5a));
  real_store("truncated");
  fs::resize_file(file("truncated"), fs::file_size(file("truncated")) / 2);
  real_store("header");
  fs::resize_file(file("header"), 60);
  write("foreign", {});
  sql(file("foreign"), "CREATE TABLE notes (x); INSERT INTO notes VALUES (1)");
  write("other-app", {});
  sql(file("other-app"), "PRAGMA application_id = 42; CREATE TABLE organizations (x)");
  real_store("newer");
  sql(file("newer"), "PRAGMA user_version = 99");

  for (const auto& [name, expected] : std::vector<std::pair<std::string, std::string>>{
           {"empty", "is empty (0 bytes)"},
           {"random", "is not an SQLite database"},
           {"truncated", "is truncated"},
           {"header", "is truncated (60 bytes"},
           {"foreign", "it holds another application's tables"},
           {"other-app", "belongs to another application (application id 42)"},
           {"newer", "newer version of this library (schema 99"}}) {
    const std::string path = file(name);
    const kc::Bytes before = kc::utils::read_file(path);
    const std::string message = error_of<kc::RuntimeError>([&] { Store store(dir(name)); });
    EXPECT_NE(message.find("service store " + path + ": "), std::string::npos) << message;
    EXPECT_NE(message.find(expected), std::string::npos) << message;
    EXPECT_EQ(kc::utils::read_file(path), before) << name;
  }
}

TEST_F(StoreTest, TheIdentityIsFixedAtCreationAndOlderStoresAreMigrated) {
  const std::string first = Store(dir("a")).service_identity();
  // 32 lowercase hex digits. (Not std::regex: GCC 12 warns inside it in the sanitizer build.)
  const auto hex32 = [](const std::string& s) {
    return s.size() == 32 && s.find_first_not_of("0123456789abcdef") == std::string::npos;
  };
  EXPECT_TRUE(hex32(first)) << first;
  EXPECT_EQ(kc::service::Engine(dir("a")).service_identity(), first);
  EXPECT_NE(Store(dir("b")).service_identity(), first);
  const std::string marks =
      "SELECT (SELECT application_id FROM pragma_application_id) || ' ' || "
      "(SELECT user_version FROM pragma_user_version)";
  const std::string ours = std::to_string(Store::kApplicationId) + " 3";
  EXPECT_EQ(sql(file("a"), marks), Rows{ours});
  // What version 2 wrote: no tokens, resources of no organisation.
  const std::string version2 =
      "DROP TABLE tokens; ALTER TABLE resources DROP COLUMN organization_id; "
      "PRAGMA user_version = 2;";

  // What version 1 wrote: the tables of version 2, no identity, no application id.
  Store(dir("a")).create_group("lab", "", 1, 1, 0);
  sql(file("a"), version2 +
                     "DROP TABLE service_meta; PRAGMA application_id = 0; PRAGMA user_version = 1");
  const std::string migrated = Store(dir("a")).service_identity();
  EXPECT_TRUE(hex32(migrated)) << migrated;
  EXPECT_EQ(sql(file("a"), marks), Rows{ours});
  EXPECT_EQ(sql(file("a"), "SELECT device_group_name FROM device_groups"), Rows{"lab"});
  EXPECT_EQ(Store(dir("a")).service_identity(), migrated);

  // A version-2 store keeps its records; its resources are the local organisation's, the only
  // one it could hold, and its users can be given tokens.
  std::int64_t resource = 0;
  {
    kc::service::Engine engine(dir("a"));
    resource = engine.add_resource("r", "kvres", "{}", "result", "SDK", nullptr)["resource_id"];
  }
  sql(file("a"), version2);
  kc::service::Engine engine(dir("a"));
  EXPECT_EQ(sql(file("a"), marks), Rows{ours});
  EXPECT_EQ(engine.service_identity(), migrated);
  const Value ids = Value::array({resource});
  const Value* args[] = {&ids};
  EXPECT_EQ(engine.call(kc::com::Operation::get_resource_info, kc::com::Args(args))["total"], 1);
  EXPECT_EQ(engine.authenticate(engine.create_token("local"))->user_name, "local");
}

TEST_F(StoreTest, CreationIsAtomicAcrossProcesses) {
  const auto temporaries = [&] {
    return std::ranges::count_if(names_in(dir("s")), [](const auto& name) {
      return name.starts_with("service.sqlite3.new-");
    });
  };
  const auto create = [&](const char* group) {
    return [&, group] { return Store(dir("s")).create_group(group, "", 1, 1, 0).is_object(); };
  };

  // A creator killed before its store is complete leaves nothing under the final name.
  {
    ChildProcess killed(held_at_first_write(create("never")));
    ASSERT_TRUE(killed.wait_ready());
  }
  EXPECT_FALSE(fs::exists(file("s")));
  EXPECT_GT(temporaries(), 0);

  // Two creators at once end up sharing one store; the dead one's temporary is gone.
  ChildProcess a(held_at_first_write(create("a")));
  ChildProcess b(held_at_first_write(create("b")));
  ASSERT_TRUE(a.wait_ready());
  ASSERT_TRUE(b.wait_ready());
  a.go();
  b.go();
  EXPECT_EQ(a.wait(), 0);
  EXPECT_EQ(b.wait(), 0);
  EXPECT_EQ(Store(dir("s")).list_groups(std::nullopt, true, {})["total"], 2);
  EXPECT_EQ(temporaries(), 0);
}

// Object writers held at their write once their temporary exists: the next ObjectStore
// removes the temporary of the one killed there, and keeps that of the one still alive.
TEST_F(StoreTest, ObjectTemporariesOfDeadWritersAreRemovedAndLiveOnesKept) {
  const std::string objects = dir("objects");
  const auto upload = [&] {
    return ObjectStore(objects, 3).upload("x", kc::Bytes(1 << 16, 7), "", "").is_object();
  };
  ChildProcess dead(held_at_first_write(upload));
  ChildProcess live(held_at_first_write(upload));
  ASSERT_TRUE(dead.wait_ready());
  ASSERT_TRUE(live.wait_ready());
  EXPECT_EQ(names_in(objects + "/.tmp").size(), 2u);
  dead.kill(SIGKILL);
  EXPECT_EQ(dead.wait(), 128 + SIGKILL);
  ObjectStore next(objects, 3);
  EXPECT_EQ(names_in(objects + "/.tmp").size(), 1u);
  live.go();
  EXPECT_EQ(live.wait(), 0);
  EXPECT_EQ(names_in(objects + "/.tmp").size(), 0u);
}

TEST_F(StoreTest, AFailedWriteNamesTheFileAndLeavesTheStoreUsable) {
  Store store(dir("s"));
  const auto group = store.create_group("lab", "", 1, 1, 0)["device_group_id"].get<std::int64_t>();
  const auto space = store.create_space(group, "s", "", 0)["space_id"].get<std::int64_t>();
  const auto put = [&](Store& s, const std::string& value) {
    s.add_parameters(space, {{"/k", value, "str"}}, 0, nullptr, nullptr, nullptr);
  };
  {
    int fault = 0;
    kc::service::ScopedWriteFaults faults(
        [&](const std::string& p) { return p == store.path() ? fault : 0; });
    for (const int err : {ENOSPC, EIO}) {
      fault = err;
      const std::string message = error_of<kc::RuntimeError>([&] { put(store, "lost"); });
      EXPECT_NE(message.find(store.path()), std::string::npos) << message;
      EXPECT_NE(message.find(std::strerror(err)), std::string::npos) << message;
      EXPECT_THROW(store.create_group("lost", "", 1, 1, 0), kc::RuntimeError);
    }
  }
  // Nothing of the failed writes was kept, and no transaction was left open: another
  // connection writes at once (it would wait for the lock and fail otherwise).
  EXPECT_TRUE(store.parameters_as_of(space, std::nullopt).empty());
  EXPECT_FALSE(store.find_group("lost").has_value());
  Store other(dir("s"));
  put(other, "kept");
  put(store, "kept too");
  EXPECT_EQ(other.parameters_as_of(space, std::nullopt).at(0).value, "kept too");

  // A real failure of the file system, in a process whose file size limit the write
  // crosses; once the limit is lifted, the same store writes again.
  ChildProcess limited([&](ChildProcess&) {
    Store own(dir("s"));  // a connection is never carried over a fork
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    ::getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit previous = limit;
    limit.rlim_cur = std::max(fs::file_size(own.path()), fs::file_size(own.path() + "-wal"));
    limit.rlim_cur += 1 << 20;
    ::setrlimit(RLIMIT_FSIZE, &limit);
    std::string message;
    try {
      put(own, std::string(4 << 20, 'x'));
    } catch (const kc::RuntimeError& e) {
      message = e.what();
    }
    ::setrlimit(RLIMIT_FSIZE, &previous);
    put(own, "after the failure");
    return message.starts_with("service store " + own.path() + ": ");
  });
  EXPECT_EQ(limited.wait(), 0);
  EXPECT_EQ(store.parameters_as_of(space, std::nullopt).at(0).value, "after the failure");
}

// A failed write names the object (never the store's directory) and leaves nothing behind; uploads round trip in every locator
// form; hostile locators cannot escape.
TEST_F(StoreTest, ObjectWritesUploadsAndLocatorsThatTryToLeave) {
  const std::string objects = dir("objects");
  ObjectStore store(objects, 3);
  {
    kc::service::ScopedWriteFaults faults([](const std::string&) { return ENOSPC; });
    const std::string message = error_of<kc::RuntimeError>([&] { store.upload("a", {1}, "", ""); });
    EXPECT_EQ(message.rfind("cannot write the object \"org-3/", 0), 0u) << message;
    EXPECT_TRUE(message.ends_with(std::strerror(ENOSPC))) << message;
  }
  EXPECT_TRUE(std::filesystem::is_empty(objects + "/.tmp"));
  EXPECT_FALSE(std::filesystem::exists(objects + "/org-3"));
  EXPECT_EQ(store.download(store.upload("a", {1}, "", "")), kc::Bytes{1});

  const kc::Bytes data{0, 1, 2, 255};
  const Value loc = store.upload("../../etc/passwd", data, "exp", "kvexp");
  EXPECT_EQ(loc["bucket"], "org-3");
  EXPECT_EQ(loc["name"], "../../etc/passwd");
  const std::string object = loc["object"];
  EXPECT_EQ(object.find(".."), std::string::npos);
  EXPECT_TRUE(object.ends_with(".kvexp"));
  EXPECT_TRUE(kc::utils::path_exists(objects + "/org-3/" + object));

  EXPECT_EQ(store.download(loc), data);
  EXPECT_EQ(store.download(loc.dump()), data);
  EXPECT_EQ(store.download(Value{{"uri", loc.dump()}}), data);
  EXPECT_EQ(store.download(Value{{"uri", loc}, {"resource_id", 1}}), data);
  // A format that is not a plain word never reaches the file name.
  EXPECT_EQ(store.upload("x", data, "exp", "../a")["object"].get<std::string>().find('.'),
            std::string::npos);
  // Two uploads of one name are two objects.
  EXPECT_NE(store.upload("same", {1}, "", "")["object"],
            store.upload("same", {2}, "", "")["object"]);

  // Hostile locators cannot escape; unknown objects fail clearly.
  kc::utils::write_file_atomic(root.path() + "/secret", kc::Bytes{7});
  for (const auto& [bucket, object] :
       std::vector<std::pair<std::string, std::string>>{{"org-3", "../../secret"},
                                                        {"org-3", "/etc/passwd"},
                                                        {"..", "secret"},
                                                        {"org-3/..", "x"},
                                                        {"org-x", "ab"},
                                                        {"org-3", "a/./b"},
                                                        {"org-3", "a\\..\\b"},
                                                        {"org-3", ""}}) {
    EXPECT_THROW(store.download(Value{{"bucket", bucket}, {"object", object}}), kc::ValueError)
        << bucket << " " << object;
  }
  // A link planted inside the store does not lead out of it.
  std::filesystem::create_directories(objects + "/org-3");
  std::filesystem::create_symlink(root.path(), objects + "/org-3/ln");
  EXPECT_THROW(store.download(Value{{"bucket", "org-3"}, {"object", "ln/secret"}}), kc::ValueError);

  EXPECT_THROW(store.download(Value{{"bucket", 3}, {"object", "x"}}), kc::TypeError);
  // An object store serves its own organisation's bucket only.
  EXPECT_EQ(error_of<kc::PermissionError>(
                [&] { store.download(Value{{"bucket", "org-4"}, {"object", "ab"}}); }),
            "object \"org-4/ab\" is in the bucket of another organisation");
  EXPECT_THROW(store.download(Value(42)), kc::TypeError);
  EXPECT_THROW(store.download("{not json"), kc::ValueError);
  EXPECT_THROW(store.download(Value{{"name", "x"}}), kc::KeyError);
  Value nested = Value{{"bucket", "org-3"}, {"object", "ab"}};
  for (int i = 0; i < 10; ++i) nested = Value{{"uri", nested.dump()}};
  EXPECT_THROW(store.download(nested), kc::ValueError);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] {
              store.download(Value{{"bucket", "org-3"}, {"object", "ab/missing"}});
            }),
            "no stored object \"org-3/ab/missing\"");
}

}  // namespace
