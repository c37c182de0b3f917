// The plug-in registry: extensions that hook into named points of the library.
//
// A plug-in is an object derived from Plugin. It says which hooks it serves (hooks()) and
// overrides the virtual of each of them. Registration order is kept: lookups return plug-ins
// in the order they were registered. The registry is process-wide and thread-safe; a plug-in's
// name() is read once, when it is registered.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "korvalin_client/utils/value.hpp"

namespace korvalin_client::plugin {

// Hook: descriptions of parameter keys for display.
inline constexpr const char* kParameterDescriptionExtension = "parameter_description_extension";
// Hook: the simulated device of the embedded service (what a measurement gives).
inline constexpr const char* kDeviceModel = "device_model";

class Plugin {
 public:
  virtual ~Plugin() = default;

  // A name unique among registered plug-ins.
  virtual std::string name() const = 0;
  // The hooks this plug-in serves.
  virtual std::vector<std::string> hooks() const = 0;

  // Hook "parameter_description_extension": a mapping from some of `full_key_list`'s keys to
  // their descriptions in `language`. The default says the hook is not served (RuntimeError).
  virtual Value parameter_description_extension(const Value& full_key_list,
                                                const std::string& language);

  // Hook "device_model": the value of `quantity` measured at item `item_id` of an experiment
  // when the device's parameters are `parameters` (a mapping from full key to value: the
  // space's parameters as of the experiment's time, with the experiment's own parameters and
  // the item's sweep values laid over them). A number, or [re, im] for a complex value.
  // `noise_seed` makes any noise reproducible. The default says the hook is not served.
  virtual Value device_model_measure(const Value& parameters, const std::string& quantity,
                                     std::int64_t item_id, std::uint64_t noise_seed);
};

// Registers `plugin`. A plug-in of the same name is replaced in place. A null plug-in is a
// ValueError.
void register_plugin(std::shared_ptr<Plugin> plugin);

// Removes the plug-in of that name; returns whether one was registered.
bool unregister_plugin(const std::string& name);

// The registered plug-ins that serve `hook`, in registration order.
std::vector<std::shared_ptr<Plugin>> get_plugins_by_hook(const std::string& hook);

}  // namespace korvalin_client::plugin
