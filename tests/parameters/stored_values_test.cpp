// Values stored in a space, on the embedded service's real store: a value that is not of its
// type is refused on write, and one that got into the store anyway (written by an older
// service) is named when read, while the rest of the space stays readable.
#include <memory>
#include <string>

#include "korvalin_client/com/space.hpp"
#include "korvalin_client/service/embedded_backend.hpp"
#include "support/testing.hpp"

namespace {

using ::testing::AllOf;

TEST(StoredValues, AValueNotOfItsTypeIsRefusedOnWriteAndOneStoredBeforeIsNamedWhenRead) {
  kc::testing::TempCacheRoot root;
  kc::testing::ScopedFakeEnv env{1700000000.0};
  auto engine = std::make_shared<kc::service::Engine>();
  kc::testing::ScopedBackend<kc::service::EmbeddedBackend> backend{
      std::make_shared<kc::service::EmbeddedBackend>(engine)};
  CloudGroup::create_group("lab", "", 1);
  CloudGroup group("lab", "origin");
  const std::int64_t space = *group.space_id;

  // Each refusal names the key, and nothing of the batch it came in is stored.
  struct Bad {
    const char* key;
    Value value;
    Value type;
    const char* why;
  };
  for (const Bad& bad : {Bad{"/n", "not-a-number", "int", "invalid \"int\" parameter text"},
                         Bad{"/t", "1", "bogus", "unknown parameter type \"bogus\""},
                         Bad{"/z", "1", nullptr, "its type must be one of \"int\", "},
                         Bad{"/s", 5, "str", "must be text or of the type"}}) {
    EXPECT_THAT(error_of<kc::ValueError>([&] {
                  kc::com::space::add_parameter(space, Value::array({"/ok", bad.key}),
                                                Value::array({"1", bad.value}),
                                                Value::array({"int", bad.type}));
                }),
                AllOf(HasSubstr(std::string("cannot store parameter ") + bad.key + ": "),
                      HasSubstr(bad.why)));
  }
  EXPECT_EQ(engine->get_parameter(space, nullptr, nullptr), Value::array());

  // An older service stored such values without a look.
  group.set_space_parameter("/good", 1);
  group.submit_space_parameter();
  kc::testing::sql(engine->storage_dir() + "/service.sqlite3",
                   "INSERT INTO parameter_changes (space_id, key, value, type, deleted, time, "
                   "version) VALUES (" + std::to_string(space) + ", '/bad/int', 'not-a-number', "
                   "'int', 0, 1700000000, 101), (" + std::to_string(space) + ", '/bad/type', '1', "
                   "'bogus', 0, 1700000000, 102), (" + std::to_string(space) + ", '/bad/null', "
                   "'1', NULL, 0, 1700000000, 103); "
                   "INSERT INTO parameters (space_id, key, value, type, seq) "
                   "SELECT space_id, key, value, type, seq FROM parameter_changes "
                   "WHERE key LIKE '/bad/%'");

  // A new program on the space, and one already running that synchronises, both read the
  // rest of the space and name the key they cannot read.
  CloudGroup fresh("lab", "origin");
  group.download_space_parameter();
  for (CloudGroup* g : {&fresh, &group}) {
    EXPECT_EQ(g->get_space_parameter("/good"), 1);
    EXPECT_EQ(error_of<kc::ValueError>([&] { g->get_space_parameter("bad/int"); }),
              "cannot read parameter /bad/int: invalid \"int\" parameter text \"not-a-number\"");
    EXPECT_THAT(error_of<kc::ValueError>([&] { g->get_space_parameter("/bad/type"); }),
                HasSubstr("cannot read parameter /bad/type: "));
    EXPECT_THAT(error_of<kc::ValueError>([&] { g->get_space_parameter("/bad/null"); }),
                HasSubstr("cannot read parameter /bad/null: "));
  }
  // Whole-space snapshots and older trees cannot leave the key out: they raise, naming it.
  EXPECT_THAT(error_of<kc::ValueError>([&] { fresh.get_history_space_parameter(1700000001); }),
              HasSubstr("cannot read parameter /bad/int: "));
  EXPECT_THAT(error_of<kc::ValueError>([&] {
                fresh.get_space_parameter_by_tree(std::nullopt, std::vector<std::string>{"bad"},
                                                  1000);
              }),
              HasSubstr("cannot read parameter /bad/int: "));

  // Writing a good value over a bad one mends the key.
  fresh.set_space_parameter("/bad/int", 5);
  fresh.submit_space_parameter();
  group.download_space_parameter();
  EXPECT_EQ(group.get_space_parameter("/bad/int"), 5);
  EXPECT_THAT(error_of<kc::ValueError>([&] { group.get_space_parameter("/bad/type"); }),
              HasSubstr("/bad/type"));
}

}  // namespace
