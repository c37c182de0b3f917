// A user's program: selects device group "lab-a" and its space "origin" (creating both on a
// fresh store), reads and submits parameters, runs a Rabi amplitude scan of q0 and follows
// its result live. Linked with korvalin::embedded it runs on this machine alone, on the store
// under KORVALIN_STORAGE_DIR; with KORVALIN_SERVICE_URL and KORVALIN_TOKEN set it uses that
// server instead.
#include <cstdint>
#include <iostream>
#include <string>

#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Result;
using kc::group::CloudGroup;

// Whether the service has a device group of this name that the user can see.
bool group_exists(const std::string& name) {
  const Value groups = CloudGroup::list_groups(1, 1000);
  for (const Value& g : kc::get_key(groups, "list", Value::array())) {
    if (kc::get_key(g, "device_group_name") == name) return true;
  }
  return false;
}

int run() {
  // A fresh store has no group: create it, with its space "origin", in the user's
  // organisation.
  if (!group_exists("lab-a")) CloudGroup::create_group("lab-a", "my device group");

  // Select device group "lab-a" and its space "origin"; the space's parameters are
  // synchronised into the local cache and loaded.
  CloudGroup group("lab-a", "origin");

  // A new space has no parameters: give the one read below a first value.
  if (!group.space_parameters.contains("/q0/drive/freq")) {
    group.set_space_parameter("/q0/drive/freq", 5.12e9);
  }

  // Read a parameter (temporary overrides win), set one and submit the pending changes.
  std::cout << "drive frequency: " << group.get_space_parameter("/q0/drive/freq") << "\n";
  group.set_space_parameter("/q0/drive/amp", 0.25);
  group.submit_space_parameter();

  // Describe an experiment, file it under a folder path and submit it.
  auto exp = group.create_exp("rabi", "amplitude scan of q0");
  exp.sweep("/q0/drive/amp", {0.0, 0.1, 0.2, 0.3}).measure_quantity("I").measure_quantity("Q");
  const std::int64_t exp_id =
      group.submit_exp(exp, {.exp_folder_path = "AutoCali/rabi/q0"}).get<std::int64_t>();

  // Follow it live; the callback hears of every step.
  const Result result = group.pull_result(
      exp_id, true, [](const Result& r, bool finished, const Value&) {
        std::cout << r.size() << " items" << (finished ? ", finished" : "") << "\n";
      });
  for (const std::string& key : result.keys()) {
    std::cout << key << ":";
    for (std::size_t i = 0; i < result[key].size(); ++i) {
      std::cout << " " << kc::to_text(result[key].value(i));
    }
    std::cout << "\n";
  }

  // An experiment that failed raised above; this one delivered every point it measured.
  std::cout << "experiment " << exp_id << ": " << result.size() << " of " << exp.item_count()
            << " items\n";
  return static_cast<std::int64_t>(result.size()) == exp.item_count() ? 0 : 1;
}

int main() {
  try {
    return run();
  } catch (const kc::Error& e) {
    std::cerr << "error: " << e.what() << "\n";
    return 1;
  }
}
