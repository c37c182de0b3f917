// The parameter codec: every kind of value to its stored pair and back, and the pairs refused.
#include "korvalin_client/utils/parameter_codec.hpp"

#include <cmath>
#include <limits>

#include "support/testing.hpp"

namespace korvalin_client::utils {
namespace {

// Same kind and value; reals also by sign, and nan equals nan.
bool same(const Value& a, const Value& b) {
  if (a.is_number_float() && b.is_number_float()) {
    double x = a.get<double>(), y = b.get<double>();
    return (std::isnan(x) && std::isnan(y)) || (x == y && std::signbit(x) == std::signbit(y));
  }
  return a.type() == b.type() && a == b && a.dump() == b.dump();
}

TEST(ParameterCodec, EveryKindRoundTripsExactlyInBothLayoutsAndTheRestIsRefusedBothWays) {
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
  for (bool compact : {true, false}) {
    for (const auto& [value, type] : cases) {
      auto [text, type_name] = encode_parameter("/k", value, compact);
      EXPECT_EQ(type_name, type) << value.dump();
      Value back = decode_parameter(text, type_name);
      EXPECT_TRUE(same(back, value)) << value.dump() << " -> " << text << " -> " << back.dump();
    }
  }

  const Value nested = Value::parse(R"({"a": [1, "x\n\""], "b": {}})");
  EXPECT_EQ(encode_parameter("/k", nested, true).first, R"({"a":[1,"x\n\""],"b":{}})");
  EXPECT_EQ(encode_parameter("/k", nested, false).first, R"({"a": [1, "x\n\""], "b": {}})");
  EXPECT_EQ(encode_parameter("/k", -std::numeric_limits<double>::infinity()).first, "-inf");

  EXPECT_EQ(error_of<TypeError>([&] { encode_parameter("/k", Value::binary({1})); }),
            "cannot store parameter /k: bytes values are not supported");
  EXPECT_THROW(encode_parameter("/k", Value::array({Value::binary({1})})), TypeError);
  // JSON has no nan, and nlohmann would throw its own error on bad UTF-8.
  EXPECT_THROW(encode_parameter("/k", Value::array({std::nan("")})), ValueError);
  EXPECT_THROW(encode_parameter("/k", Value::array({"\xFF"})), ValueError);

  Value deep = Value::array();
  Value* innermost = &deep;
  for (int i = 0; i < 100000; ++i) innermost = &innermost->emplace_back(Value::array());
  EXPECT_THROW(encode_parameter("/k", deep), ValueError);

  // Texts that are not of their type, and types that do not exist.
  const std::vector<std::pair<Value, Value>> value_errors = {
      {"", "int"}, {" 1", "int"}, {"1.0", "int"}, {"--1", "int"}, {"0x10", "int"},
      {"99999999999999999999", "int"}, {"-9223372036854775809", "int"},
      {"", "float"}, {"1.5x", "float"}, {" 1", "float"}, {"+-1", "float"},
      {"yes", "bool"}, {"[1", "list"}, {"{}", "list"}, {"[]", "dict"}, {"x", "null"},
      {std::string(100000, '[') + std::string(100000, ']'), "list"},
  };
  for (const auto& [v, t] : value_errors) {
    EXPECT_THROW(decode_parameter(v, t), ValueError) << v << " " << t;
  }
  EXPECT_EQ(error_of<ValueError>([] { decode_parameter("abc", "int"); }),
            "invalid \"int\" parameter text \"abc\"");
  EXPECT_EQ(error_of<ValueError>([] { decode_parameter("1", "complex"); }),
            "unknown parameter type \"complex\"");
  EXPECT_THROW(decode_parameter("1", 3), TypeError);
  EXPECT_THROW(decode_parameter(1.5, "int"), TypeError);
}

}  // namespace
}  // namespace korvalin_client::utils
