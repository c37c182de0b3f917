#include "korvalin_client/plugin/plugin_register.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kp = korvalin_client::plugin;
using Names = std::vector<std::string>;

namespace {

class FakePlugin : public kp::Plugin {
 public:
  FakePlugin(std::string name, Names hooks) : name_(std::move(name)), hooks_(std::move(hooks)) {}
  std::string name() const override { return name_; }
  Names hooks() const override { return hooks_; }

 private:
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
  kp::unregister_plugin("a");
  kp::unregister_plugin("c");
  EXPECT_THROW(kp::register_plugin(nullptr), korvalin_client::ValueError);
}

TEST(PluginRegistry, UnservedHookSaysSo) {
  FakePlugin p("a", {});
  try {
    p.parameter_description_extension(korvalin_client::Value::array(), "en");
    FAIL() << "expected a RuntimeError";
  } catch (const korvalin_client::RuntimeError& e) {
    EXPECT_STREQ(e.what(), "plugin a does not serve the hook parameter_description_extension");
  }
}

}  // namespace
