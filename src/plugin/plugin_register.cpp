#include "korvalin_client/plugin/plugin_register.hpp"

#include <algorithm>
#include <mutex>
#include <utility>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client::plugin {
namespace {

// A plug-in and the name it had when it was registered. Names are taken once, outside the
// lock, so that no plug-in code ever runs while the registry is locked.
struct Entry {
  std::string name;
  std::shared_ptr<Plugin> plugin;
};

struct Registry {
  std::mutex mutex;
  std::vector<Entry> entries;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

Value Plugin::parameter_description_extension(const Value& /*full_key_list*/,
                                              const std::string& /*language*/) {
  throw RuntimeError("plugin " + name() + " does not serve the hook " +
                     kParameterDescriptionExtension);
}

Value Plugin::device_model_measure(const Value& /*parameters*/, const std::string& /*quantity*/,
                                   std::int64_t /*item_id*/, std::uint64_t /*noise_seed*/) {
  throw RuntimeError("plugin " + name() + " does not serve the hook " + kDeviceModel);
}

void register_plugin(std::shared_ptr<Plugin> plugin) {
  if (!plugin) throw ValueError("cannot register a null plugin");
  std::string name = plugin->name();
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  auto it = std::find_if(r.entries.begin(), r.entries.end(),
                         [&](const Entry& e) { return e.name == name; });
  if (it != r.entries.end()) {
    // The old plug-in moves into the parameter, which is released after the lock.
    std::swap(it->plugin, plugin);
  } else {
    r.entries.push_back({std::move(name), std::move(plugin)});
  }
}

bool unregister_plugin(const std::string& name) {
  std::shared_ptr<Plugin> removed;  // released after the lock, in case its destructor is slow
  Registry& r = registry();
  {
    const std::lock_guard lock(r.mutex);
    auto it = std::find_if(r.entries.begin(), r.entries.end(),
                           [&](const Entry& e) { return e.name == name; });
    if (it == r.entries.end()) return false;
    removed = std::move(it->plugin);
    r.entries.erase(it);
  }
  return true;
}

std::vector<std::shared_ptr<Plugin>> get_plugins_by_hook(const std::string& hook) {
  std::vector<std::shared_ptr<Plugin>> all;
  {
    Registry& r = registry();
    const std::lock_guard lock(r.mutex);
    all.reserve(r.entries.size());
    for (const Entry& e : r.entries) all.push_back(e.plugin);
  }
  std::vector<std::shared_ptr<Plugin>> serving;
  for (auto& p : all) {
    const std::vector<std::string> hooks = p->hooks();
    if (std::find(hooks.begin(), hooks.end(), hook) != hooks.end()) serving.push_back(std::move(p));
  }
  return serving;
}

}  // namespace korvalin_client::plugin
