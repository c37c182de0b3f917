// Group: its live, temporary and pending values.
#include "korvalin_client/group/group.hpp"

#include "support/testing.hpp"

namespace korvalin_client::group {
namespace {

utils::SpaceCache::Record record(const char* key, const char* text, const char* type) {
  return {key, text, type, nullptr, nullptr, 0};
}

class RefreshingGroup : public Group {
 public:
  int refreshes = 0;

 protected:
  void refresh_space_parameters() override { space_parameters["/fresh"] = ++refreshes; }
};

TEST(GroupParameters, LiveTemporaryAndPendingValues) {
  RefreshingGroup g;
  g.initialize("g", "space", 3, Value{{"a", 1}, {"/b", 2}}, Value{{"b", 20}});
  EXPECT_EQ(g.waiting_for_submit, (Value{{"/a", 1}, {"/b", 2}}));
  EXPECT_EQ(g.get_space_parameter("a"), 1);
  EXPECT_EQ(g.get_space_parameter("/b"), 20);  // the temporary override wins
  EXPECT_EQ(error_of<KeyError>([&] { g.get_space_parameter("fresh"); }),
            "parameter /fresh has no value");
  EXPECT_EQ(g.get_space_parameter("fresh", true), 1);
  EXPECT_EQ(g.refreshes, 1);

  // A reload from the cache keeps what has not been submitted yet.
  g.set_space_parameter("c", "pending");
  g.input_space_parameter_from_cache(
      5, {record("/a", "10", "int"), record("/c", "old", "str"), record("/d", "0.5", "float")});
  EXPECT_EQ(g.space_id, 5);
  EXPECT_EQ(g.get_space_parameter("/c"), "pending");
  EXPECT_EQ(g.get_space_parameter("/a"), 1);
  EXPECT_EQ(g.get_space_parameter("/d"), 0.5);
  EXPECT_EQ(g.space_parameters.count("/fresh"), 0u);

  g.submit_space_parameter();
  EXPECT_EQ(g.waiting_for_submit, Value::object());
  g.input_space_parameter_from_cache(5, {record("/a", "10", "int")});
  EXPECT_EQ(g.get_space_parameter("/a"), 10);
  EXPECT_THROW(g.get_space_parameter("/c"), KeyError);
  // A record that does not decode is named when read; the others load, and a value set since
  // stands in for it.
  g.input_space_parameter_from_cache(5, {record("/a", "x", "int"), record("/e", "1", "bogus"),
                                         record("/f", "2", "int")});
  EXPECT_EQ(error_of<ValueError>([&] { g.get_space_parameter("a"); }),
            "cannot read parameter /a: invalid \"int\" parameter text \"x\"");
  EXPECT_EQ(g.get_space_parameter("/f"), 2);
  g.set_space_parameter("/e", 3);
  EXPECT_EQ(g.get_space_parameter("/e"), 3);

  Value deep = 1;
  for (std::size_t i = 0; i <= kMaxValueDepth; ++i) deep = Value::array({std::move(deep)});
  EXPECT_THROW(g.set_space_parameter("/k", std::move(deep)), ValueError);
  EXPECT_THROW(Group::deserialize_parameter({"/a", "/b"}, {"1"}, {"int", "int"}), ValueError);
  EXPECT_EQ(Group::deserialize_parameter({"a"}, {"1"}, {"int"}), (ParameterMap{{"a", 1}}));

  g.initialize("h", std::nullopt, std::nullopt, nullptr, nullptr);
  EXPECT_TRUE(g.space_parameters.empty() && g.temporary_parameters.empty());
  EXPECT_EQ(g.waiting_for_submit, Value::object());
  auto init_error = [&](const Value& live, const Value& temporary) {
    return error_of<TypeError>(
        [&] { g.initialize("g", std::nullopt, std::nullopt, live, temporary); });
  };
  EXPECT_NE(init_error(Value::array(), nullptr).find("space_parameters"), std::string::npos);
  EXPECT_NE(init_error(nullptr, "x").find("temporary_parameters"), std::string::npos);
}

}  // namespace
}  // namespace korvalin_client::group
