#include "korvalin_client/plugin/plugin_register.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/error_of.hpp"

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
  EXPECT_THROW(kp::register_plugin(nullptr), korvalin_client::ValueError);

  // A hook a plug-in does not serve says so.
  EXPECT_EQ(korvalin_client::testing::error_of<korvalin_client::RuntimeError>([] {
              FakePlugin("a", {}).parameter_description_extension(
                  korvalin_client::Value::array(), "en");
            }),
            "plugin a does not serve the hook parameter_description_extension");
}

}  // namespace
