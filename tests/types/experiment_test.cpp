// Experiment: its item count, what valid() refuses, and its stored form.
#include "korvalin_client/experiment/experiment.hpp"

#include <functional>

#include "support/testing.hpp"

namespace korvalin_client::experiment {
namespace {

Experiment rabi() {
  Experiment e("rabi", "amplitude scan", nullptr);
  e.sweep("q0/drive/amp", {0.0, 0.5, 1.0}).sweep("/q0/drive/freq", {4.9e9, 5.0e9});
  e.measure_quantities({"I", "Q"});
  e.set_parameter("q0/readout/len", 2000);
  e.template_ = "rabi_v2";
  e.attachment = {{"pulse", 12}};
  e.options = {{"shots", 1024}, {"notes", {1, "two", nullptr}}};
  e.repetitions = 3;
  return e;
}

TEST(Experiment, ItemCountAndWhatValidRefuses) {
  Experiment e = rabi();
  EXPECT_EQ(e.item_count(), 3 * 2 * 3);
  EXPECT_EQ(Experiment("t", "", nullptr).item_count(), 1);
  e.sweeps[0].values.clear();
  EXPECT_EQ(e.item_count(), 0);

  Experiment huge("t", "", nullptr);
  huge.repetitions = INT64_MAX / 2;
  huge.sweep("/a", {1, 2});
  EXPECT_EQ(huge.item_count(), INT64_MAX / 2 * 2);
  huge.sweep("/b", {1, 2});
  EXPECT_THROW(huge.item_count(), ValueError);

  // valid() says what is wrong.
  EXPECT_NO_THROW(rabi().valid());
  const std::vector<std::pair<std::function<void(Experiment&)>, std::string>> cases = {
      {[](Experiment& e) { e.title.clear(); }, "experiment title is empty"},
      {[](Experiment& e) { e.template_ = ""; }, "experiment template name is empty"},
      {[](Experiment& e) { e.measure.clear(); }, "experiment measures nothing"},
      {[](Experiment& e) { e.measure_quantity(""); }, "measured quantity 2 has an empty name"},
      {[](Experiment& e) { e.measure_quantity("I"); }, "quantity \"I\" is measured twice"},
      {[](Experiment& e) { e.sweeps.push_back({"", {1}}); }, "sweep 2 has an empty key"},
      {[](Experiment& e) { e.sweeps.push_back({"/q0/drive/amp", {1}}); },
       "parameter \"/q0/drive/amp\" is swept twice"},
      {[](Experiment& e) { e.sweep("/x", {}); }, "sweep of \"/x\" has no values"},
      {[](Experiment& e) { e.sweep("/x", {Value::binary({1})}); }, "holds bytes"},
      {[](Experiment& e) { e.repetitions = 0; }, "repetitions must be at least 1, not 0"},
      {[](Experiment& e) { e.attachment = Value::array(); }, "attachment must be a mapping"},
      {[](Experiment& e) { e.attachment["pulse"] = "12"; },
       "attachment \"pulse\" must be an integer resource id, not text"},
      {[](Experiment& e) { e.parameters = 3; }, "parameters must be a mapping, not integer"},
      {[](Experiment& e) { e.options = nullptr; }, "options must be a mapping, not null"},
      {[](Experiment& e) { e.repetitions = 1'000'000'000; },
       "6000000000 points, more than the 1000000000 allowed"},
  };
  for (const auto& [spoil, message] : cases) {
    Experiment e = rabi();
    spoil(e);
    std::string error = error_of<ValueError>([&] { e.valid(); });
    EXPECT_NE(error.find(message), std::string::npos) << error << " / " << message;
  }
}

TEST(Experiment, TheStoredFormRoundTripsAndNamesTheFieldAtFault) {
  Experiment e = rabi();
  Value stored = e.serialize();
  std::vector<std::string> keys;
  for (const auto& [key, value] : stored.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"format", "version", "title", "desc", "template",
                                            "attachment", "sweeps", "repetitions", "measure",
                                            "parameters", "options"}));
  EXPECT_EQ(stored["sweeps"][0], (Value{{"key", "/q0/drive/amp"}, {"values", {0.0, 0.5, 1.0}}}));

  group::Group group;
  stored["added_later"] = "ignored";
  Experiment back = Experiment::deserialize(stored, &group);
  EXPECT_EQ(back, e);
  EXPECT_EQ(back.group, &group);
  // Values keep their kind: 0.0 stays a real.
  EXPECT_TRUE(back.sweeps[0].values[0].is_number_float());

  Value minimal = {{"format", "korvalin.experiment"}, {"version", 1}, {"title", "t"},
                   {"sweeps", Value::array()}, {"measure", {"I"}}};
  Experiment plain("t", "", nullptr);
  plain.measure_quantity("I");
  EXPECT_EQ(Experiment::deserialize(minimal, nullptr), plain);

  // A stored form that is not one names the field at fault.
  const Value good = rabi().serialize();
  auto error = [&](auto kind, const std::function<void(Value&)>& spoil) {
    Value v = good;
    spoil(v);
    return error_of<decltype(kind)>([&] { Experiment::deserialize(v, nullptr); });
  };
  EXPECT_EQ(error(TypeError(""), [](Value& v) { v["sweeps"] = "x"; }),
            "experiment field \"sweeps\" must be a list, not text");
  EXPECT_EQ(error(TypeError(""), [](Value& v) { v["sweeps"][1]["key"] = 3; }),
            "experiment field \"sweeps[1].key\" must be text, not integer");
  EXPECT_EQ(error(TypeError(""), [](Value& v) { v["measure"][0] = nullptr; }),
            "experiment field \"measure[0]\" must be text, not null");
  EXPECT_EQ(error(TypeError(""), [](Value& v) { v["attachment"]["pulse"] = 1.5; }),
            "experiment field \"attachment.pulse\" must be an integer, not real");
  EXPECT_EQ(error(TypeError(""), [](Value& v) { v["template"] = 1; }),
            "experiment field \"template\" must be text or null, not integer");
  EXPECT_EQ(error(KeyError(""), [](Value& v) { v.erase("title"); }),
            "experiment field \"title\" is missing");
  EXPECT_EQ(error(KeyError(""), [](Value& v) { v["sweeps"][0].erase("values"); }),
            "experiment field \"sweeps[0].values\" is missing");
  EXPECT_NE(error(ValueError(""), [](Value& v) { v["format"] = "other"; }), "no error");
  EXPECT_NE(error(ValueError(""), [](Value& v) { v["version"] = 2; }), "no error");
  EXPECT_THROW(Experiment::deserialize(Value::array(), nullptr), TypeError);
}

}  // namespace
}  // namespace korvalin_client::experiment
