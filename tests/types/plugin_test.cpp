// Plug-ins: the registry, and the parameter descriptions they supply to CloudGroup.
#include "korvalin_client/plugin/plugin_register.hpp"

#include "support/testing.hpp"

namespace kp = kc::plugin;
using Names = std::vector<std::string>;

namespace {

struct FakePlugin : kp::Plugin {
  FakePlugin(std::string name, Names hooks) : name_(std::move(name)), hooks_(std::move(hooks)) {}
  std::string name() const override { return name_; }
  Names hooks() const override { return hooks_; }
  std::string name_;
  Names hooks_;
};

void add(const std::string& name, Names hooks) {
  kp::register_plugin(std::make_shared<FakePlugin>(name, std::move(hooks)));
}

Names serving(const std::string& hook) {
  Names out;
  for (const auto& p : kp::get_plugins_by_hook(hook)) out.push_back(p->name());
  return out;
}

TEST(PluginRegistry, KeepsOrderReplacesInPlaceAndUnregisters) {
  add("b", {"x", "y"});
  add("a", {"y"});
  add("c", {"x"});
  EXPECT_EQ(serving("x"), (Names{"b", "c"}));
  EXPECT_EQ(serving("y"), (Names{"b", "a"}));
  EXPECT_TRUE(serving("z").empty());

  add("b", {"y"});  // same name: keeps its place, takes the new hooks
  EXPECT_EQ(serving("x"), (Names{"c"}));
  EXPECT_EQ(serving("y"), (Names{"b", "a"}));

  EXPECT_TRUE(kp::unregister_plugin("b"));
  EXPECT_FALSE(kp::unregister_plugin("b"));
  EXPECT_EQ(serving("y"), (Names{"a"}));
  EXPECT_THROW(kp::register_plugin(nullptr), kc::ValueError);

  // A hook a plug-in does not serve says so.
  EXPECT_EQ(error_of<kc::RuntimeError>([] {
              FakePlugin("a", {}).parameter_description_extension(Value::array(), "en");
            }),
            "plugin a does not serve the hook parameter_description_extension");
}

struct Describer : FakePlugin {
  Describer(std::string name, Value answer)
      : FakePlugin(std::move(name), {kp::kParameterDescriptionExtension}), answer(answer) {}
  Value parameter_description_extension(const Value& keys, const std::string& language) override {
    seen = {keys, language};
    return answer;
  }
  Value answer, seen;
};

TEST(PluginRegistry, DescriptionsComeFromPluginsLaterOnesWinning) {
  EXPECT_EQ(CloudGroup::get_parameter_description({"/a"}), Value::object());
  auto first = std::make_shared<Describer>("first", Value{{"/a", "amp"}, {"/b", "bias"}});
  kp::register_plugin(first);
  kp::register_plugin(std::make_shared<Describer>("second", Value{{"/a", "amplitude"}}));
  EXPECT_EQ(CloudGroup::get_parameter_description({"/a", "/b"}, "en"),
            (Value{{"/a", "amplitude"}, {"/b", "bias"}}));
  EXPECT_EQ(first->seen, Value::array({Value::array({"/a", "/b"}), "en"}));

  kp::register_plugin(std::make_shared<Describer>("second", Value::array()));
  EXPECT_THROW(CloudGroup::get_parameter_description({"/a"}), kc::TypeError);
  kp::unregister_plugin("first");
  kp::unregister_plugin("second");
}

}  // namespace
