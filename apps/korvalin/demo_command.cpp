// korvalin demo: a whole experiment on the service the program is connected to (the embedded
// one unless KORVALIN_SERVICE_URL names a server).
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli.hpp"
#include "console.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"
#include "output.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Result;
using kc::group::CloudGroup;

struct DemoOptions {
  std::string group = "demo";
  int points = 101;
  std::optional<std::int64_t> organization;  // none: the user's own
  bool yes = false;
  bool json = false;
};

bool group_exists(const std::string& name) {
  const Value groups = CloudGroup::list_groups(1, 1000000);
  for (const Value& g : kc::get_key(groups, "list", Value::array())) {
    if (kc::get_key(g, "device_group_name") == name) return true;
  }
  return false;
}

std::string preview(const Result& result, const std::string& key, std::size_t n) {
  std::ostringstream out;
  const auto& column = result[key];
  for (std::size_t i = 0; i < std::min(n, column.size()); ++i) {
    out << (i ? ", " : "") << kc::to_text(column.value(i));
  }
  if (column.size() > n) out << ", ...";
  return out.str();
}

// Whether the user agrees to create the group: asked on a terminal unless --yes said so.
bool may_create(const DemoOptions& options) {
  if (options.yes || !stdin_is_terminal()) return true;
  std::cerr << "Create device group \"" << cell(options.group) << "\"? [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes" || answer == "Yes";
}

int demo(const DemoOptions& options) {
  // With --json, standard output carries the summary alone and the story goes to standard error.
  std::ostream& out = options.json ? std::cerr : std::cout;
  if (kc::com::connection_manager::get_connection_type() == "embedded") {
    out << "korvalin demo: embedded service at " << kc::utils::get_local_storage_dir() << "\n";
  } else {
    out << "korvalin demo: service over " << kc::com::connection_manager::get_connection_type()
        << "\n";
  }
  bool created_here = false;
  if (!group_exists(options.group)) {
    if (!may_create(options)) {
      throw kc::RuntimeError("device group \"" + options.group +
                             "\" was not created; run korvalin demo --yes to create it, or name "
                             "an existing group with --group (korvalin groups list)");
    }
    try {
      const Value created = CloudGroup::create_group(
          options.group, "Device group of the korvalin demo", options.organization);
      created_here = true;
      out << "Created device group \"" << cell(options.group) << "\" (organisation "
          << cell(kc::get_key(created, "organization_id")) << ")\n";
    } catch (const kc::PermissionError& e) {
      throw kc::PermissionError(std::string(e.what()) +
                                "; give the organisation to create it in with --org");
    } catch (const kc::Error&) {
      if (!group_exists(options.group)) throw;  // not another program creating it meanwhile
    }
  }
  // A group another program is creating gets its "origin" space a moment after the group.
  std::unique_ptr<CloudGroup> opened;
  for (int attempt = 0; !opened; ++attempt) {
    try {
      opened = std::make_unique<CloudGroup>(options.group, "origin");
    } catch (const kc::Error&) {
      if (created_here || attempt >= 50) throw;
      kc::env().sleep(0.1);
    }
  }
  CloudGroup& group = *opened;
  out << "Group \"" << cell(group.group_name) << "\" (organisation "
      << cell(group.organization_name()) << "), space \"origin\" with "
      << group.space_parameters.size() << " parameters\n";

  group.set_space_parameter("/q0/drive/freq", 5.12e9);
  group.set_space_parameter("/q0/drive/pi_amp", 0.42);
  group.set_space_parameter("/q0/readout/len", 2000);
  group.submit_space_parameter();
  out << "Parameters set and submitted: /q0/drive/freq, /q0/drive/pi_amp, /q0/readout/len\n";

  auto exp = group.create_exp("rabi q0", "Rabi oscillation of q0 (korvalin demo)");
  std::vector<Value> amplitudes;
  for (int i = 0; i < options.points; ++i) {
    amplitudes.emplace_back(options.points == 1 ? 0.0 : i * 1.0 / (options.points - 1));
  }
  exp.sweep("/q0/drive/amp", amplitudes).measure_quantity("I").measure_quantity("Q");
  const std::int64_t exp_id =
      group.submit_exp(exp, {.exp_folder_path = "AutoCali/rabi/q0"}).get<std::int64_t>();
  out << "Submitted experiment " << exp_id << " (" << exp.item_count()
      << " items) into AutoCali/rabi/q0; following it live:\n";

  const Result result =
      group.pull_result(exp_id, true, [&](const Result& r, bool finished, const Value& detail) {
        out << "  " << r.size() << "/" << exp.item_count() << " items, status "
            << cell(kc::get_key(detail, "status", "")) << (finished ? ", done" : "") << "\n";
      });

  const Value detail = settled_experiment(exp_id);
  const std::string file =
      group.create_result_cache_dir(kc::require_key(detail, "create_time"), exp_id) + "/complete_" +
      std::to_string(exp_id) + ".kvres";
  // A pull that ended at the final piece leaves the complete file to a later pull; the demo
  // keeps the result it holds there now.
  if (!kc::utils::path_exists(file)) result.save_to_file(file);
  out << "Result: " << result.size() << " items (ids " << result.item_id_start() << " to "
      << result.item_id_end() << "), columns:";
  for (const auto& key : result.keys()) out << " " << key;
  out << "\n";
  for (const auto& key : result.keys())
    out << "  " << key << ": " << preview(result, key, 5) << "\n";
  out << "Complete result file: " << file << "\n";

  const std::string status = cell(kc::get_key(detail, "status", ""));
  if (options.json) {
    Value columns = Value::array();
    for (const auto& key : result.keys()) columns.push_back(key);
    print_json({{"group", group.group_name},
                {"space", "origin"},
                {"created_group", created_here},
                {"exp_id", exp_id},
                {"status", status},
                {"items", result.size()},
                {"columns", std::move(columns)},
                {"file", file}});
  }
  // A run that failed still delivers what it measured, but the demo did not succeed.
  if (status == "complete") return 0;
  std::cerr << "Experiment " << exp_id << " ended with status " << status << ":\n";
  for (const Value& m : CloudGroup::get_experiment_msg(exp_id)) {
    const std::string level = cell(kc::get_key(m, "message_level", ""));
    if (level == "ERROR" || level == "WARNING") {
      std::cerr << "  " << level << ": " << cell(kc::get_key(m, "message", "")) << "\n";
    }
  }
  return 1;
}

}  // namespace

void add_demo_command(CLI::App& app, Program& program) {
  auto o = std::make_shared<DemoOptions>();
  CLI::App* command = add_command(
      app, "demo",
      "Run a whole experiment: a group, parameters, a Rabi scan followed live, its result", program,
      [o] { return demo(*o); });
  command->add_option("-g,--group", o->group, "The device group to use")->capture_default_str();
  command->add_option("--points", o->points, "Points of the amplitude sweep")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  command
      ->add_option("--org", o->organization,
                   "The organisation of a group it creates (default: the user's own)")
      ->check(CLI::PositiveNumber);
  command->footer(
      "Creates the device group when it does not exist (asking first on a terminal), sets "
      "parameters in its space \"origin\", submits a Rabi scan into the folder "
      "AutoCali/rabi/q0, follows it live and summarises its result.");
  command->add_flag("-y,--yes", o->yes, "Create the group without asking when it does not exist");
  add_json_flag(*command, o->json);
}

}  // namespace korvalin_app
