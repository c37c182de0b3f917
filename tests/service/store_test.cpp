// The stores' files: the database files the Store refuses, its creation that stays atomic
// across processes, the service identity and the migrations from older versions, files of the
// owner alone, writes that fail;
// the object store's round trips, locators that try to leave it, and the temporaries that dead
// writers leave.
#include "korvalin_client/service/store.hpp"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

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

// Turns a store of this version into one as version 3 wrote it: group names unique in the
// whole store, versions that were sequence ids, no record of objects, no quotas.
const std::string kVersion3 =
    "CREATE TABLE g3 (device_group_id INTEGER PRIMARY KEY, device_group_name TEXT NOT NULL "
    "UNIQUE, organization_id INTEGER NOT NULL REFERENCES organizations, description TEXT NOT "
    "NULL, hidden INTEGER NOT NULL DEFAULT 0, create_time INTEGER NOT NULL); "
    "INSERT INTO g3 SELECT * FROM device_groups; DROP TABLE device_groups; "
    "ALTER TABLE g3 RENAME TO device_groups; "
    "DROP TABLE objects; ALTER TABLE resources DROP COLUMN creator; "
    "ALTER TABLE organizations DROP COLUMN max_bytes; "
    "ALTER TABLE organizations DROP COLUMN max_queued; "
    "ALTER TABLE organizations DROP COLUMN stored_bytes; DROP INDEX experiments_by_organization; "
    "DROP INDEX changes_by_version; ALTER TABLE parameter_changes DROP COLUMN version; "
    "PRAGMA user_version = 3;";

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
  const std::string ours =
      std::to_string(Store::kApplicationId) + " " + std::to_string(Store::kSchemaVersion);
  EXPECT_EQ(sql(file("a"), marks), Rows{ours});
  // What version 2 wrote: no tokens, resources of no organisation.
  const std::string version2 =
      kVersion3 +
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

// A version-3 store keeps its data and what it meant: the versions its changes had, the
// rights on its results (now on their objects too); and gains names per organisation.
TEST_F(StoreTest, AVersion3StoreIsMigratedKeepingItsData) {
  using kc::service::Engine;
  const Value keys = Value::array({"/k"});
  const Value values = Value::array({"1"});
  const Value types = Value::array({"int"});
  std::int64_t s1 = 0;
  std::int64_t s2 = 0;
  Value piece;
  Value definition;
  {
    Engine engine(dir("a"));
    engine.create_group("lab", "", 1);
    s1 = engine.create_space("lab", "one", "")["space_id"];
    s2 = engine.create_space("lab", "two", "")["space_id"];
    for (const std::int64_t space : {s1, s2, s1}) {
      engine.add_parameter(space, keys, values, types, nullptr, nullptr, nullptr);
    }
    definition = engine.get_minio_client(1)->upload("1", {7}, "exp", "kvexp");
    const Value resource =
        engine.add_resource("", "kvexp", definition.dump(), "exp", "SDK", nullptr);
    const std::int64_t exp =
        engine.create_sub_process(nullptr, "lab", s1, "", "", resource["resource_id"], nullptr,
                                  nullptr, nullptr, nullptr, nullptr)["sub_process_id"];
    piece = engine.store_result_piece(exp, 0, {1, 2}, 0, 1, true);
  }
  // As version 3 wrote it; its versions were the changes' sequence ids (1 and 3 of space
  // one, 2 of space two), its resources of no group.
  sql(file("a"), "UPDATE resources SET device_group_id = NULL; " + kVersion3);
  ASSERT_EQ(sql(file("a"), "PRAGMA user_version"), Rows{"3"});

  Engine engine(dir("a"));
  EXPECT_EQ(sql(file("a"), "PRAGMA user_version"), Rows{std::to_string(Store::kSchemaVersion)});
  const auto versions = [&](std::int64_t space) {
    std::vector<std::int64_t> out;
    const Value history = engine.get_parameter_history(space, nullptr, 1, 10);
    for (const Value& c : history[0]) out.push_back(c["version"]);
    return out;
  };
  EXPECT_EQ(versions(s1), (std::vector<std::int64_t>{3, 1}));
  EXPECT_EQ(engine.add_parameter(s2, keys, values, types, nullptr, nullptr, nullptr)["version"], 3);
  EXPECT_EQ(engine.get_parameter_tree(s1, 1, "")[0]["v"], "1");
  // Its results are its group's: the local user (READ on "lab") reads them, and another
  // organisation may now have a "lab" of its own.
  const kc::service::Caller& local = engine.local_caller();
  EXPECT_EQ(engine.objects_of(local)->download(piece), (kc::Bytes{1, 2}));
  EXPECT_EQ(engine.objects_of(local)->download(definition), (kc::Bytes{7}));
  Store& store = engine.store();
  // The objects recorded take their files' sizes: a 1-byte definition and a 2-byte piece.
  EXPECT_EQ(store.quota(1).stored_bytes, 3);
  const std::int64_t elsewhere = store.find_or_create_organization("Elsewhere");
  EXPECT_EQ(store.create_group("lab", "", elsewhere, local.user_id, 0)["organization_id"], elsewhere);
}

// Whatever the umask, the store's files are readable by their owner only.
TEST_F(StoreTest, TheStoresFilesAreItsOwnersAlone) {
  const mode_t umask = ::umask(0);
  {
    kc::service::Engine engine(dir("a/b"));
    engine.create_group("lab", "", 1);
    const std::int64_t space = engine.create_space("lab", "s", "")["space_id"];
    engine.add_parameter(space, Value::array({"/k"}), Value::array({"1"}), Value::array({"int"}),
                         nullptr, nullptr, nullptr);
    const std::int64_t exp =
        engine.create_sub_process(nullptr, "lab", space, "", "", nullptr, nullptr, nullptr,
                                  nullptr, nullptr, nullptr)["sub_process_id"];
    engine.store_result_piece(exp, 0, {1}, 0, 0, true);
    engine.objects_of(engine.local_caller())->upload("x", {1}, "", "");
    EXPECT_TRUE(fs::exists(file("a/b") + "-wal"));
    EXPECT_TRUE(fs::exists(file("a/b") + "-shm"));
    std::vector<std::string> seen;
    for (const auto& e : fs::recursive_directory_iterator(dir("a"))) {
      const fs::perms mode = e.status().permissions() & fs::perms::all;
      const bool folder = e.is_directory();
      EXPECT_EQ(mode, folder ? fs::perms::owner_all
                             : (fs::perms::owner_read | fs::perms::owner_write))
          << e.path();
      seen.push_back(e.path().filename());
    }
    EXPECT_GE(seen.size(), 9u);  // a/b, its database and -wal, -shm, objects/.tmp, org-1, 2 objects
  }
  ::umask(umask);
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
  EXPECT_FALSE(store.find_group("lost", 1).has_value());
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
  // An object store serves its own organisation's bucket only: another's is not there.
  EXPECT_EQ(error_of<kc::RuntimeError>(
                [&] { store.download(Value{{"bucket", "org-4"}, {"object", "ab"}}); }),
            "no stored object \"org-4/ab\"");
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

// Quotas: none means unlimited; what would pass one is refused before it is stored, naming the
// organisation, the limit and the use; another organisation is not touched.
TEST_F(StoreTest, QuotasRefuseWhatWouldPassThemAndOnlyForTheirOrganisation) {
  kc::service::Engine engine(dir("q"));
  Store& store = engine.store();
  const std::int64_t other = store.find_or_create_organization("Other");
  const auto objects = engine.objects_of(engine.local_caller());
  const auto files = [&] {
    std::size_t n = 0;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir("q") + "/objects")) {
      n += e.is_regular_file() ? 1 : 0;
    }
    return n;
  };
  const Value definition = objects->upload("d", kc::Bytes(100, 1), "exp", "kvexp");
  EXPECT_EQ(store.quota(1).stored_bytes, 100);
  EXPECT_FALSE(store.quota(1).max_bytes);

  store.set_quota(1, 150, 1);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] { objects->upload("x", kc::Bytes(60, 1), "", ""); }),
            "storage quota reached: organisation 1 may store 150 bytes; it stores 100 and this "
            "would add 60");
  // Streamed: refused once it passes, whether announced or not, its bytes dropped.
  auto writer = objects->begin_upload("x", "", "");
  EXPECT_THROW(writer->expect(51), kc::service::QuotaError);
  writer->write(kc::Bytes(40, 1).data(), 40);
  EXPECT_THROW(writer->write(kc::Bytes(11, 1).data(), 11), kc::service::QuotaError);
  writer.reset();
  EXPECT_EQ(files(), 1u);
  // The service's own uploads count too; other organisations are not limited.
  engine.get_minio_client(1)->upload("p", kc::Bytes(50, 1), "result", "kvres");
  EXPECT_THROW(engine.get_minio_client(1)->upload("p", {1}, "", ""), kc::service::QuotaError);
  engine.get_minio_client(other)->upload("o", kc::Bytes(1000, 1), "", "");
  EXPECT_EQ(store.quota(1).stored_bytes, 150);
  EXPECT_EQ(store.quota(other).stored_bytes, 1000);

  // Queued experiments: the second waiting one is refused.
  engine.create_group("lab", "", 1);
  const std::int64_t space = engine.create_space("lab", "s", "")["space_id"];
  const Value resource = engine.add_resource("", "kvexp", definition.dump(), "exp", "SDK", nullptr);
  const auto submit = [&] {
    return engine.create_sub_process(nullptr, "lab", space, "", "", resource["resource_id"],
                                     nullptr, nullptr, nullptr, nullptr, nullptr);
  };
  const std::int64_t first = submit()["sub_process_id"];
  EXPECT_EQ(error_of<kc::RuntimeError>(submit),
            "queue quota reached: organisation 1 may have 1 experiments queued; it has 1");
  engine.set_experiment_status(first, "running");
  submit();  // the first no longer waits
  EXPECT_THROW(store.set_quota(1, -1, std::nullopt), kc::ValueError);
  EXPECT_THROW(store.set_quota(99, 1, 1), kc::RuntimeError);
  store.set_quota(1, std::nullopt, std::nullopt);
  submit();
  objects->upload("x", kc::Bytes(60, 1), "", "");
  EXPECT_EQ(store.quota(1).queued, 2);
  EXPECT_EQ(store.quota(1).stored_bytes, 210);
}

}  // namespace
