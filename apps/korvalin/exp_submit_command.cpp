// korvalin exp submit: an experiment built from the command line (--title, --sweep, --measure,
// ...) or read whole from a definition file (--file), submitted to a space.
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "arguments.hpp"
#include "cli.hpp"
#include "output.hpp"
#include "targets.hpp"

namespace korvalin_app {
namespace {

namespace kc = korvalin_client;
using kc::experiment::Experiment;

struct SubmitOptions {
  Target target;
  std::string title;
  std::string description;
  std::vector<std::string> sweeps;
  std::vector<std::string> measure;
  std::vector<std::string> parameters;
  std::int64_t repetitions = 1;
  std::optional<std::string> template_name;
  std::optional<std::string> file;
  std::optional<std::string> folder;
  bool json = false;
};

// The experiment the options describe, bound to `group` (files are read, arguments checked,
// before anything is asked of the service: `group` may still be null).
Experiment build(const SubmitOptions& o) {
  if (o.file) return read_definition_file(*o.file);
  if (o.title.empty()) throw UsageError("exp submit needs --title (or --file)");
  Experiment exp(o.title, o.description);
  for (const std::string& text : o.sweeps) {
    auto sweep = parse_sweep(text);
    exp.sweep(std::move(sweep.key), std::move(sweep.values));
  }
  for (const std::string& names : o.measure)
    exp.measure_quantities(split_names(names, "--measure"));
  for (const std::string& text : o.parameters) {
    auto [key, value] = parse_assignment(text);
    exp.set_parameter(key, std::move(value));
  }
  exp.repetitions = o.repetitions;
  exp.template_ = o.template_name;
  return exp;
}

int submit(const SubmitOptions& o) {
  Experiment exp = build(o);
  exp.valid();
  auto group = open_group(o.target.group, o.target.space);
  exp.group = group.get();

  kc::group::SubmitOptions options;
  options.exp_folder_path = o.folder;
  options.source = "CLI";
  if (!exp.attachment.empty()) options.attachment = exp.attachment;
  const std::int64_t exp_id = kc::expect_int(group->submit_exp(exp, options), "the experiment id");

  if (o.json) {
    print_json({{"exp_id", exp_id},
                {"items", exp.item_count()},
                {"group", o.target.group},
                {"space", o.target.space},
                {"folder", o.folder ? Value(*o.folder) : Value(nullptr)}});
  } else {
    std::cout << "Submitted experiment " << exp_id << " (" << exp.item_count()
              << " items) to space \"" << cell(o.target.space) << "\" of device group \""
              << cell(o.target.group) << "\""
              << (o.folder ? ", folder \"" + cell(*o.folder) + "\"" : std::string()) << "\n";
  }
  return 0;
}

}  // namespace

void add_exp_submit_command(CLI::App& exp, Program& program) {
  auto o = std::make_shared<SubmitOptions>();
  CLI::App* command = add_command(exp, "submit", "Submit an experiment to a space", program,
                                  [o] { return submit(*o); });
  add_target_options(*command, o->target, true);
  auto* title = command->add_option("-t,--title", o->title, "The experiment's title");
  auto* desc = command->add_option("-d,--desc", o->description, "A description");
  auto* sweep = command->add_option(
      "--sweep", o->sweeps,
      "KEY=START:STOP:N (N points from START to STOP) or KEY=[v1,v2,...]; repeat for nested "
      "sweeps, the first outermost");
  sweep->allow_extra_args(false);
  auto* measure = command->add_option("-m,--measure", o->measure, "Quantities to measure: I,Q");
  measure->allow_extra_args(false);
  auto* set = command->add_option("--set", o->parameters,
                                  "KEY=VALUE: a parameter for this experiment only (VALUE as in "
                                  "params set); repeat for more");
  set->allow_extra_args(false);
  auto* repeat = command->add_option("--repeat", o->repetitions, "Runs of the whole sweep")
                     ->capture_default_str()
                     ->check(CLI::PositiveNumber);
  auto* template_name =
      command->add_option("--template", o->template_name, "The template the device runs");
  command->add_option("-f,--folder", o->folder,
                      "The folder to file it in (\"AutoCali/rabi\"), created where missing");
  auto* file = command->add_option("--file", o->file, "A whole definition as JSON (docs/cli.md)");
  for (CLI::Option* option : {title, desc, sweep, measure, set, repeat, template_name})
    file->excludes(option);
  add_json_flag(*command, o->json);
}

}  // namespace korvalin_app
