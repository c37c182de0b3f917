// Group: parameter values to text and back, and its live, temporary and pending values.
#include "korvalin_client/group/group.hpp"

#include <cmath>
#include <limits>

#include "support/testing.hpp"

namespace korvalin_client::group {
namespace {

// Same kind and value; reals also by sign, and nan equals nan.
bool same(const Value& a, const Value& b) {
  if (a.is_number_float() && b.is_number_float()) {
    double x = a.get<double>(), y = b.get<double>();
    return (std::isnan(x) && std::isnan(y)) || (x == y && std::signbit(x) == std::signbit(y));
  }
  return a.type() == b.type() && a == b && a.dump() == b.dump();
}

utils::SpaceCache::Record record(const char* key, const char* text, const char* type) {
  return {key, text, type, nullptr, nullptr, 0};
}

TEST(GroupSerialize, EveryKindRoundTripsExactlyInBothLayoutsAndTheRestIsRefusedBothWays) {
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<std::pair<Value, std::string>> cases = {
      {0, "int"}, {-7, "int"}, {std::numeric_limits<std::int64_t>::min(), "int"},
      {std::numeric_limits<std::int64_t>::max(), "int"},
      {std::numeric_limits<std::uint64_t>::max(), "int"},
      {0.1, "float"}, {1e-310, "float"}, {2.0, "float"}, {-0.0, "float"}, {1e300, "float"},
      {std::nan(""), "float"}, {inf, "float"}, {-inf, "float"},
      {true, "bool"}, {false, "bool"},
      {"", "str"}, {"h\xC3\xA9llo \xE2\x9C\x93", "str"}, {"42", "str"}, {"[1]", "str"},
      {Value::array(), "list"}, {Value::parse(R"([1, -2, 2.0, "a,b", null, [true, {}]])"), "list"},
      {Value::object(), "dict"},
      {Value::parse(R"({"z": 1, "a": {"q\"": [0.5]}, "m": "x:y"})"), "dict"},
      {nullptr, "null"},
  };
  Group g;
  for (bool compact : {true, false}) {
    for (const auto& [value, type] : cases) {
      auto [text, type_name] = g.serialize_parameter("/k", value, compact);
      EXPECT_EQ(type_name, type) << value.dump();
      Value back = Group::deserialize_single_parameter(text, type_name);
      EXPECT_TRUE(same(back, value)) << value.dump() << " -> " << text << " -> " << back.dump();
    }
  }

  const Value nested = Value::parse(R"({"a": [1, "x\n\""], "b": {}})");
  EXPECT_EQ(g.serialize_parameter("/k", nested, true).first, R"({"a":[1,"x\n\""],"b":{}})");
  EXPECT_EQ(g.serialize_parameter("/k", nested, false).first, R"({"a": [1, "x\n\""], "b": {}})");
  EXPECT_EQ(g.serialize_parameter("/k", -std::numeric_limits<double>::infinity()).first, "-inf");

  EXPECT_EQ(error_of<TypeError>([&] { g.serialize_parameter("/k", Value::binary({1})); }),
            "cannot store parameter /k: bytes values are not supported");
  EXPECT_THROW(g.serialize_parameter("/k", Value::array({Value::binary({1})})), TypeError);
  // JSON has no nan, and nlohmann would throw its own error on bad UTF-8.
  EXPECT_THROW(g.serialize_parameter("/k", Value::array({std::nan("")})), ValueError);
  EXPECT_THROW(g.serialize_parameter("/k", Value::array({"\xFF"})), ValueError);

  Value deep = Value::array();
  Value* innermost = &deep;
  for (int i = 0; i < 100000; ++i) innermost = &innermost->emplace_back(Value::array());
  EXPECT_THROW(g.serialize_parameter("/k", deep), ValueError);
  EXPECT_THROW(g.set_space_parameter("/k", std::move(deep)), ValueError);

  // Texts that are not of their type, and types that do not exist.
  const std::vector<std::pair<Value, Value>> value_errors = {
      {"", "int"}, {" 1", "int"}, {"1.0", "int"}, {"--1", "int"}, {"0x10", "int"},
      {"99999999999999999999", "int"}, {"-9223372036854775809", "int"},
      {"", "float"}, {"1.5x", "float"}, {" 1", "float"}, {"+-1", "float"},
      {"yes", "bool"}, {"[1", "list"}, {"{}", "list"}, {"[]", "dict"}, {"x", "null"},
      {std::string(100000, '[') + std::string(100000, ']'), "list"},
  };
  for (const auto& [v, t] : value_errors) {
    EXPECT_THROW(Group::deserialize_single_parameter(v, t), ValueError) << v << " " << t;
  }
  EXPECT_EQ(error_of<ValueError>([] { Group::deserialize_single_parameter("abc", "int"); }),
            "invalid \"int\" parameter text \"abc\"");
  EXPECT_EQ(error_of<ValueError>([] { Group::deserialize_single_parameter("1", "complex"); }),
            "unknown parameter type \"complex\"");
  EXPECT_THROW(Group::deserialize_single_parameter("1", 3), TypeError);
  EXPECT_THROW(Group::deserialize_single_parameter(1.5, "int"), TypeError);

  EXPECT_THROW(Group::deserialize_parameter({"/a", "/b"}, {"1"}, {"int", "int"}), ValueError);
  EXPECT_EQ(Group::deserialize_parameter({"a"}, {"1"}, {"int"}), (ParameterMap{{"a", 1}}));
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
  // A bad record leaves the live values as they were.
  EXPECT_THROW(g.input_space_parameter_from_cache(5, {record("/a", "x", "int")}), ValueError);
  EXPECT_EQ(g.get_space_parameter("/a"), 10);

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
