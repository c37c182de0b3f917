// korvalin exp pull|export: an experiment's result, followed live with a progress display on
// standard error, kept as the complete result file in the cache, and written out as CSV, JSON
// or HDF5.
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "cli.hpp"
#include "console.hpp"
#include "korvalin_client/utils/decode_msgpack.hpp"
#include "korvalin_client/utils/files.hpp"
#include "korvalin_client/utils/task_status.hpp"
#include "output.hpp"
#include "progress_bar.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::experiment::Result;

struct PullOptions {
  std::int64_t exp_id = 0;
  bool no_wait = false;
  bool json = false;
};

struct ExportOptions {
  PullOptions pull;
  std::string format;  // empty: from the output file's extension
  std::string output;
};

// The items an experiment will have, from its detail's "progress" ({"done", "total"}, or the
// same as JSON text).
std::optional<std::int64_t> total_items(const Value& detail) {
  Value progress = kc::get_key(detail, "progress");
  try {
    if (progress.is_string()) progress = kc::utils::json_loads(progress.get<std::string>());
  } catch (const kc::Error&) {
    return std::nullopt;
  }
  if (!progress.is_object()) return std::nullopt;
  const Value total = kc::get_key(progress, "total");
  if (!total.is_number_integer()) return std::nullopt;
  return total.get<std::int64_t>();
}

struct Pulled {
  OpenExperiment experiment;
  Result result;
  std::string status;
  std::optional<std::string> file;  // the complete result file, once there is one
};

Pulled pull(const PullOptions& o) {
  Pulled pulled{.experiment = open_experiment(o.exp_id), .result = {}, .status = {}, .file = {}};
  CloudGroup& group = *pulled.experiment.group;
  std::optional<std::int64_t> total = total_items(pulled.experiment.detail);
  {
    ProgressBar bar("exp " + std::to_string(o.exp_id), stderr_is_terminal());
    pulled.result =
        group.pull_result(o.exp_id, !o.no_wait, [&](const Result& r, bool, const Value& detail) {
          if (auto t = total_items(detail)) total = t;
          bar.update(static_cast<std::int64_t>(r.size()), total,
                     detail.is_object() ? cell(kc::get_key(detail, "status")) : "");
        });
  }
  const Value detail =
      o.no_wait ? CloudGroup::get_experiment(o.exp_id) : settled_experiment(o.exp_id);
  pulled.status = cell(kc::get_key(detail, "status"));

  // A pull that ended at the final piece leaves the complete file to the next pull; write it
  // now for a finished experiment, so that the file named below is there.
  const std::string file =
      group.create_result_cache_dir(kc::require_key(detail, "create_time"), o.exp_id) +
      "/complete_" + std::to_string(o.exp_id) + ".kvres";
  bool finished = false;
  try {
    finished = kc::utils::task_status::is_terminal(
        kc::utils::task_status::normalize_sub_process_status(kc::get_key(detail, "status")));
  } catch (const kc::Error&) {
  }
  if (!kc::utils::path_exists(file) && finished && !pulled.result.empty()) {
    pulled.result.save_to_file(file);
  }
  if (kc::utils::path_exists(file)) pulled.file = file;
  return pulled;
}

Value summary(const PullOptions& o, const Pulled& p) {
  Value columns = Value::array();
  for (const auto& key : p.result.keys()) columns.push_back(key);
  return {{"exp_id", o.exp_id},
          {"status", p.status},
          {"items", p.result.size()},
          {"item_id_start", p.result.item_id_start()},
          {"item_id_end", p.result.item_id_end()},
          {"columns", std::move(columns)},
          {"file", p.file ? Value(*p.file) : Value(nullptr)}};
}

void print_summary(const PullOptions& o, const Pulled& p) {
  std::string columns;
  for (const auto& key : p.result.keys()) columns += (columns.empty() ? "" : ", ") + cell(key);
  print_fields({{"experiment", std::to_string(o.exp_id) + " (" + p.status + ")"},
                {"items", std::to_string(p.result.size()) +
                              (p.result.empty()
                                   ? std::string()
                                   : " (ids " + std::to_string(p.result.item_id_start()) + " to " +
                                         std::to_string(p.result.item_id_end()) + ")")},
                {"columns", columns},
                {"result file", p.file ? *p.file : "none yet: the experiment has not finished"}});
}

int pull_command(const PullOptions& o) {
  const Pulled pulled = pull(o);
  if (o.json) {
    print_json(summary(o, pulled));
  } else {
    print_summary(o, pulled);
  }
  return 0;
}

std::string format_of(const ExportOptions& o) {
  if (!o.format.empty()) return o.format;
  const auto dot = o.output.rfind('.');
  const std::string extension = dot == std::string::npos ? "" : o.output.substr(dot + 1);
  if (extension == "csv" || extension == "json") return extension;
  if (extension == "h5" || extension == "hdf5") return "hdf5";
  throw UsageError("give --format: the format of \"" + o.output + "\" is not known by its name");
}

int export_command(const ExportOptions& o) {
  const std::string format = format_of(o);
  Pulled pulled = pull(o.pull);
  // The title and sweep come from the submitted definition, the status as it is now.
  const auto [exp, detail, space] =
      pulled.experiment.group->get_experiment_detail(o.pull.exp_id, false);
  Value sweep = Value::array();
  for (const auto& s : exp.sweeps) sweep.push_back({{"key", s.key}, {"values", s.values}});
  const Value attributes = {{"title", exp.title},
                            {"exp_id", o.pull.exp_id},
                            {"status", pulled.status},
                            {"sweep", std::move(sweep)}};
  if (format == "csv") {
    pulled.result.save_csv(o.output);
  } else if (format == "json") {
    pulled.result.save_json(o.output, attributes);
  } else {
    pulled.result.save_hdf5(o.output, attributes);
  }
  if (o.pull.json) {
    Value answer = summary(o.pull, pulled);
    answer["format"] = format;
    answer["output"] = o.output;
    print_json(answer);
  } else {
    std::cout << "Wrote " << pulled.result.size() << " items of experiment " << o.pull.exp_id
              << " (" << pulled.status << ") as " << format << " to " << o.output << "\n";
  }
  return 0;
}

void add_pull_options(CLI::App& command, PullOptions& o) {
  command.add_option("id", o.exp_id, "The experiment's id")->required();
  command.add_flag("--no-wait", o.no_wait, "Take what is there now instead of waiting for the end");
  add_json_flag(command, o.json);
}

}  // namespace

void add_exp_pull_commands(CLI::App& exp, Program& program) {
  auto pull_o = std::make_shared<PullOptions>();
  add_pull_options(*add_command(exp, "pull",
                                "Fetch an experiment's result, following it until it ends; "
                                "keeps the complete result file in the cache",
                                program, [pull_o] { return pull_command(*pull_o); }),
                   *pull_o);

  auto export_o = std::make_shared<ExportOptions>();
  CLI::App* command =
      add_command(exp, "export", "Write an experiment's result as CSV, JSON or HDF5", program,
                  [export_o] { return export_command(*export_o); });
  add_pull_options(*command, export_o->pull);
  command
      ->add_option("--format", export_o->format, "csv, json or hdf5 (default: from the file name)")
      ->check(CLI::IsMember({"csv", "json", "hdf5"}));
  command->add_option("-o,--output", export_o->output, "The file to write")->required();
}

}  // namespace korvalin_app
