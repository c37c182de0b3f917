// SpaceCache: values and keys on disk, its bookkeeping, several objects and processes on one
// file, and files it cannot use.
#include "korvalin_client/utils/space_cache.hpp"

#include <fstream>
#include <limits>

#include "korvalin_client/utils/files.hpp"
#include "support/child_process.hpp"
#include "support/testing.hpp"

namespace korvalin_client::utils {
namespace {

using Keys = std::vector<std::string>;

// Writes `keys` with `values`, type "t" and null metadata.
void put(SpaceCache& cache, Keys keys, std::vector<Value> values, std::int64_t timestamp) {
  const std::size_t n = keys.size();
  cache.update_cache(keys, values, Keys(n, "t"), std::vector<Value>(n), std::vector<Value>(n),
                     timestamp);
}

Keys keys_of(const SpaceCache& cache) { return cache.fuzzy_query(std::nullopt); }
Value info(const SpaceCache& cache, const char* field) { return cache.get_cache_info()[field]; }

class SpaceCacheTest : public ::testing::Test {
 protected:
  testing::TempCacheRoot root_;
};

TEST_F(SpaceCacheTest, ValuesKeepTheirKindAndKeysAreNormalisedOrderedAndSearchedLiterally) {
  SpaceCache cache("grp", 1);
  const std::vector<Value> values = {"4.5e9",
                                     42,
                                     2.5,
                                     nullptr,
                                     true,
                                     Value::parse(R"([1, "x", null, {"z": 1, "a": false}])"),
                                     std::numeric_limits<std::uint64_t>::max()};
  const std::size_t n = values.size();
  const Keys keys = {"/a", "/b", "/c", "/d", "/e", "/f", "/g"};
  const Value unit = {{"si", "Hz"}};
  cache.update_cache(keys, values, Keys(n, "float"), std::vector<Value>(n, "about"),
                     std::vector<Value>(n, unit), 77);

  const auto records = cache.read_all();
  ASSERT_EQ(records.size(), n);
  // dump() tells 42 from 42.0 and "2.5" from 2.5, and shows mapping order.
  for (std::size_t i = 0; i < n; ++i) EXPECT_EQ(records[i].value.dump(), values[i].dump());
  EXPECT_EQ(records[0].type, "float");
  EXPECT_EQ(records[0].description, "about");
  EXPECT_EQ(records[0].unit, unit);
  EXPECT_EQ(records[0].updated, 77);
  EXPECT_EQ(testing::sql(cache.path(), "SELECT typeof(value) FROM parameters ORDER BY key"),
            (Keys{"text", "integer", "real", "null", "blob", "blob", "blob"}));

  // Keys are normalised, ordered, and searched literally.
  EXPECT_EQ(normalize_key(""), "/");
  SpaceCache keyed("grp", 2), other("grp", 3);
  put(keyed, {"b", "a/b", "/a"}, {1, 2, 3}, 1);
  put(keyed, {"/a/b"}, {4}, 2);  // the key written as "a/b" above: replaced, not added
  EXPECT_EQ(keys_of(keyed), (Keys{"/a", "/a/b", "/b"}));
  EXPECT_EQ(keyed.read_all()[1].value, 4);
  keyed.remove_key("a/b", 3);
  EXPECT_EQ(keys_of(keyed), (Keys{"/a", "/b"}));

  // Searches ignore case and take "%" and "_" literally, within the one space.
  put(keyed, {"/q0/Drive/FREQ", "/q1/50%_duty", "/q1/50x_duty", "/q2/ab"}, {1, 3, 4, 5}, 4);
  put(other, {"/q0/drive/freq2"}, {1}, 1);
  EXPECT_EQ(keyed.fuzzy_query("drive/freq"), Keys{"/q0/Drive/FREQ"});
  EXPECT_EQ(keyed.fuzzy_query("50%_"), Keys{"/q1/50%_duty"});
  EXPECT_EQ(keyed.fuzzy_query("_"), (Keys{"/q1/50%_duty", "/q1/50x_duty"}));
  EXPECT_EQ(keyed.fuzzy_query("a%b"), Keys{});
  EXPECT_EQ(keyed.fuzzy_query(""), keys_of(keyed));
}

TEST_F(SpaceCacheTest, LastUpdatedMovesOnlyWithUpdateCacheAndFailedUpdatesChangeNothing) {
  SpaceCache cache("grp", 5);
  EXPECT_EQ(cache.get_cache_info(),
            (Value{{"space_id", 5},
                   {"last_updated", 0},
                   {"last_removed", 0},
                   {"path", root_.cache_root() + "/grp/space_cache.sqlite3"}}));
  put(cache, {}, {}, 100);  // an empty sync still records its time
  EXPECT_EQ(info(cache, "last_updated"), 100);
  put(cache, {"/a", "/b"}, {1, 2}, 200);
  cache.remove_key("/a", 300);
  cache.remove_key("/absent", 400);
  EXPECT_EQ(info(cache, "last_updated"), 200);
  EXPECT_EQ(info(cache, "last_removed"), 400);
  put(cache, {"/c"}, {3}, 500);
  EXPECT_EQ(info(cache, "last_removed"), 400);
  EXPECT_EQ(cache.count(), 2);

  // Failed updates leave the cache untouched.
  SpaceCache other("grp", 1);
  put(other, {"/old"}, {"kept"}, 10);
  EXPECT_THAT(
      error_of<ValueError>([&] {
        other.update_cache({"/a", "/b"}, {1, 2}, {"t"}, {nullptr, nullptr}, {nullptr, nullptr}, 20);
      }),
      HasSubstr("2 keys but 1 types"));
  // The second row cannot be stored (a list holding invalid UTF-8): the first is rolled back.
  EXPECT_THROW(put(other, {"/new", "/bad"}, {1, Value::array({"\xff"})}, 30), ValueError);
  EXPECT_EQ(keys_of(other), Keys{"/old"});
  EXPECT_EQ(info(other, "last_updated"), 10);
}

TEST_F(SpaceCacheTest, ObjectsOnOneFileShareStateAndSpacesStaySeparate) {
  {
    SpaceCache a("grp", 1), b("grp", 1), other_space("grp", 2), other_group("grp2", 1);
    put(a, {"/x", "/y"}, {1, 2}, 10);
    EXPECT_EQ(keys_of(b), (Keys{"/x", "/y"}));
    b.remove_key("/x", 20);
    EXPECT_EQ(keys_of(a), Keys{"/y"});
    EXPECT_EQ(info(a, "last_removed"), 20);
    put(other_space, {"/z"}, {3}, 30);
    EXPECT_EQ(other_space.path(), a.path());
    EXPECT_EQ(keys_of(other_space), Keys{"/z"});
    EXPECT_EQ(info(a, "last_updated"), 10);
    EXPECT_EQ(keys_of(other_group), Keys{});
  }
  SpaceCache reopened("grp", 1);
  EXPECT_EQ(keys_of(reopened), Keys{"/y"});
  EXPECT_EQ(info(reopened, "last_removed"), 20);
}

TEST_F(SpaceCacheTest, AnotherProcessSeesCommittedWrites) {
  // The child waits for the parent's go, then writes through its own connection.
  testing::ChildProcess child([](testing::ChildProcess& self) {
    self.meet();
    SpaceCache own("grp", 1);
    put(own, {"/from/child"}, {7}, 50);
    own.remove_key("/from/parent", 60);
    return true;
  });
  // Opened after fork(): an SQLite connection must never cross into a child process.
  SpaceCache parent("grp", 1);
  EXPECT_NO_THROW(put(parent, {"/from/parent"}, {1}, 10));
  ASSERT_TRUE(child.wait_ready());
  child.go();
  ASSERT_EQ(child.wait(), 0);
  EXPECT_EQ(keys_of(parent), Keys{"/from/child"});
  EXPECT_EQ(info(parent, "last_updated"), 50);
  EXPECT_EQ(info(parent, "last_removed"), 60);
}

TEST_F(SpaceCacheTest, UnusableDatabaseFilesAreErrorsNamingTheFile) {
  auto expect_refused = [&](const std::string& group, const char* why) {
    const std::string path = root_.cache_root() + "/" + group + "/space_cache.sqlite3";
    const std::string error = error_of<RuntimeError>([&] { SpaceCache cache(group, 1); });
    EXPECT_THAT(error, HasSubstr(path + ": ")) << why;
    EXPECT_THAT(error, HasSubstr("can be deleted")) << why;
  };
  const std::string path = SpaceCache("newer", 1).path();
  testing::sql(path, "PRAGMA user_version = 2");
  expect_refused("newer", "a newer schema");

  make_dirs(root_.cache_root() + "/garbage");
  std::ofstream(root_.cache_root() + "/garbage/space_cache.sqlite3") << std::string(8192, 'x');
  expect_refused("garbage", "garbage bytes");

  make_dirs(root_.cache_root() + "/foreign");
  testing::sql(root_.cache_root() + "/foreign/space_cache.sqlite3", "CREATE TABLE parameters (x)");
  expect_refused("foreign", "another program's database");

  SpaceCache cache("grp", 1);
  put(cache, {"/a"}, {Value::array({1})}, 1);
  testing::sql(cache.path(), "UPDATE parameters SET value = x'00ff'");
  EXPECT_THROW(cache.read_all().records(), RuntimeError);
}

}  // namespace
}  // namespace korvalin_client::utils
