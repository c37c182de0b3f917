// korvalin demo: a whole experiment on the service the program is connected to (the embedded
// one unless KORVALIN_SERVICE_URL names a server).
#include <algorithm>
#include <cstdint>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/group/cloud_group.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/local.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::Value;
using kc::experiment::Result;
using kc::group::CloudGroup;

struct DemoOptions {
  std::string group = "demo";
  int points = 101;
  std::int64_t organization = 1;
};

DemoOptions parse_demo(const std::vector<std::string>& args) {
  DemoOptions options;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    auto value = [&]() -> const std::string& {
      if (i + 1 >= args.size()) throw std::invalid_argument(a + " needs a value");
      return args[++i];
    };
    if (a == "--group") {
      options.group = value();
    } else if (a == "--org") {
      const std::string& v = value();
      std::size_t used = 0;
      try {
        options.organization = std::stoll(v, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used != v.size() || options.organization < 1) {
        throw std::invalid_argument("--org must be an organisation id (1 or more), not \"" + v + "\"");
      }
    } else if (a == "--points") {
      const std::string& v = value();
      std::size_t used = 0;
      int n = 0;
      try {
        n = std::stoi(v, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      if (used != v.size() || n < 1 || n > 100000) {
        throw std::invalid_argument("--points must be a whole number from 1 to 100000, not \"" + v +
                                    "\"");
      }
      options.points = n;
    } else {
      throw std::invalid_argument("unknown option for demo: " + a);
    }
  }
  return options;
}

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

int demo(const DemoOptions& options) {
  if (kc::com::connection_manager::get_connection_type() == "embedded") {
    std::cout << "korvalin demo: embedded service at " << kc::utils::get_local_storage_dir()
              << "\n";
  } else {
    std::cout << "korvalin demo: service over " << kc::com::connection_manager::get_connection_type()
              << "\n";
  }
  bool created_here = false;
  if (!group_exists(options.group)) {
    std::cout << "Creating device group \"" << options.group << "\"\n";
    try {
      CloudGroup::create_group(options.group, "Device group of the korvalin demo",
                               options.organization);
      created_here = true;
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
  std::cout << "Group \"" << group.group_name << "\" (organisation "
            << kc::to_text(group.organization_name()) << "), space \"origin\" with "
            << group.space_parameters.size() << " parameters\n";

  group.set_space_parameter("/q0/drive/freq", 5.12e9);
  group.set_space_parameter("/q0/drive/pi_amp", 0.42);
  group.set_space_parameter("/q0/readout/len", 2000);
  group.submit_space_parameter();
  std::cout << "Parameters set and submitted: /q0/drive/freq, /q0/drive/pi_amp, /q0/readout/len\n";

  auto exp = group.create_exp("rabi q0", "Rabi oscillation of q0 (korvalin demo)");
  std::vector<Value> amplitudes;
  for (int i = 0; i < options.points; ++i) {
    amplitudes.emplace_back(options.points == 1 ? 0.0 : i * 1.0 / (options.points - 1));
  }
  exp.sweep("/q0/drive/amp", amplitudes).measure_quantity("I").measure_quantity("Q");
  const std::int64_t exp_id =
      group.submit_exp(exp, {.exp_folder_path = "AutoCali/rabi/q0"}).get<std::int64_t>();
  std::cout << "Submitted experiment " << exp_id << " (" << exp.item_count()
            << " items) into AutoCali/rabi/q0; following it live:\n";

  const Result result =
      group.pull_result(exp_id, true, [&](const Result& r, bool finished, const Value& detail) {
        std::cout << "  " << r.size() << "/" << exp.item_count() << " items, status "
                  << kc::to_text(kc::get_key(detail, "status", "")) << (finished ? ", done" : "")
                  << "\n";
      });

  const Value detail = CloudGroup::get_experiment(exp_id);
  const std::string file =
      group.create_result_cache_dir(kc::require_key(detail, "create_time"), exp_id) + "/complete_" +
      std::to_string(exp_id) + ".kvres";
  // A pull that ended at the final piece leaves the complete file to a later pull; the demo
  // keeps the result it holds there now.
  if (!kc::utils::path_exists(file)) result.save_to_file(file);
  std::cout << "Result: " << result.size() << " items (ids " << result.item_id_start() << " to "
            << result.item_id_end() << "), columns:";
  for (const auto& key : result.keys()) std::cout << " " << key;
  std::cout << "\n";
  for (const auto& key : result.keys())
    std::cout << "  " << key << ": " << preview(result, key, 5) << "\n";
  std::cout << "Complete result file: " << file << "\n";

  // A run that failed still delivers what it measured, but the demo did not succeed.
  const std::string status = kc::to_text(kc::get_key(detail, "status", ""));
  if (status == "complete") return 0;
  std::cerr << "Experiment " << exp_id << " ended with status " << status << ":\n";
  for (const Value& m : CloudGroup::get_experiment_msg(exp_id)) {
    const std::string level = kc::to_text(kc::get_key(m, "message_level", ""));
    if (level == "ERROR" || level == "WARNING") {
      std::cerr << "  " << level << ": " << kc::to_text(kc::get_key(m, "message", "")) << "\n";
    }
  }
  return 1;
}

}  // namespace

int run_demo(const std::vector<std::string>& args) { return demo(parse_demo(args)); }

}  // namespace korvalin_app
