// The embedded object store: round trips, names or locators that try to leave it, and writes
// that fail. (Temporaries of writers that died: store_test.cpp.)
#include "korvalin_client/service/object_store.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>

#include "korvalin_client/service/write_faults.hpp"
#include "korvalin_client/utils/files.hpp"
#include "support/error_of.hpp"
#include "support/temp_dir.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::service::ObjectStore;
using kc::testing::error_of;

namespace {

class ObjectStoreTest : public ::testing::Test {
 protected:
  kc::testing::TempCacheRoot root;
  std::string dir = root.storage_root() + "/objects";
  ObjectStore store{dir, 3};
};

TEST_F(ObjectStoreTest, UploadsRoundTripInEveryLocatorForm) {
  const kc::Bytes data{0, 1, 2, 255};
  const Value loc = store.upload("../../etc/passwd", data, "exp", "kvexp");
  EXPECT_EQ(loc["bucket"], "org-3");
  EXPECT_EQ(loc["name"], "../../etc/passwd");
  const std::string object = loc["object"];
  EXPECT_EQ(object.find(".."), std::string::npos);
  EXPECT_TRUE(object.ends_with(".kvexp"));
  EXPECT_TRUE(kc::utils::path_exists(dir + "/org-3/" + object));

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
}

TEST_F(ObjectStoreTest, HostileLocatorsCannotEscapeAndUnknownObjectsFailClearly) {
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
  std::filesystem::create_directories(dir + "/org-3");
  std::filesystem::create_symlink(root.path(), dir + "/org-3/ln");
  EXPECT_THROW(store.download(Value{{"bucket", "org-3"}, {"object", "ln/secret"}}), kc::ValueError);

  EXPECT_THROW(store.download(Value{{"bucket", 3}, {"object", "x"}}), kc::TypeError);
  EXPECT_THROW(store.download(Value(42)), kc::TypeError);
  EXPECT_THROW(store.download("{not json"), kc::ValueError);
  EXPECT_THROW(store.download(Value{{"name", "x"}}), kc::KeyError);
  Value nested = Value{{"bucket", "org-3"}, {"object", "ab"}};
  for (int i = 0; i < 10; ++i) nested = Value{{"uri", nested.dump()}};
  EXPECT_THROW(store.download(nested), kc::ValueError);
  EXPECT_EQ(error_of<kc::RuntimeError>([&] {
              store.download(Value{{"bucket", "org-3"}, {"object", "ab/missing"}});
            }),
            "no stored object \"org-3/ab/missing\" in " + dir);
}

TEST_F(ObjectStoreTest, AFailedWriteNamesTheFileAndLeavesNothingBehind) {
  {
    kc::service::ScopedWriteFaults faults([](const std::string&) { return ENOSPC; });
    const std::string message = error_of<kc::RuntimeError>([&] { store.upload("a", {1}, "", ""); });
    EXPECT_EQ(message.rfind("cannot write " + dir + "/org-3/", 0), 0u) << message;
    EXPECT_TRUE(message.ends_with(std::strerror(ENOSPC))) << message;
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir + "/.tmp"));
  EXPECT_FALSE(std::filesystem::exists(dir + "/org-3"));
  EXPECT_EQ(store.download(store.upload("a", {1}, "", "")), kc::Bytes{1});
}

}  // namespace
