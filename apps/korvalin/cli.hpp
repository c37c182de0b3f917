// What the commands of the korvalin program share on the command line: CLI11 (included here and
// nowhere else), the command a parse selected, the options several commands take, and the
// registration of each command group (one file each).
//
// A command file declares its options once, on its own subcommand, into a struct that the
// command's run function captures; the parse stores that function in Program::run and main
// calls it afterwards, so nothing runs before the whole command line was understood.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

namespace korvalin_app {

// A command line CLI11 accepted but a command cannot use (a malformed KEY=VALUE or
// START:STOP:N); main reports it as a usage error (exit 2).
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The command the parse selected.
struct Program {
  std::function<int()> run;
};

// Adds the command `name` under `parent`: selected by the parse, `run` becomes program.run.
CLI::App* add_command(CLI::App& parent, const std::string& name, const std::string& description,
                      Program& program, std::function<int()> run);
// Adds a group of commands (such as "exp"), which needs one of its commands.
CLI::App* add_command_group(CLI::App& parent, const std::string& name,
                            const std::string& description);

// --json: one JSON document on standard output instead of a table.
void add_json_flag(CLI::App& command, bool& json);

// The device group and space a command works on.
struct Target {
  std::string group;
  std::string space = "origin";
};
// --group (required unless $KORVALIN_GROUP is set) and, `with_space`, --space (default
// "origin", or $KORVALIN_SPACE).
void add_target_options(CLI::App& command, Target& target, bool with_space);

// --page and --per-page of a listing.
struct Page {
  std::int64_t page = 1;
  std::int64_t per_page = 20;
};
void add_page_options(CLI::App& command, Page& page);

// The command groups, one file each.
void add_groups_commands(CLI::App& app, Program& program);
void add_spaces_commands(CLI::App& app, Program& program);
void add_params_commands(CLI::App& app, Program& program);
// "exp" and its commands: listing and inspection here, submission and results in files of
// their own, which add to the group this one makes.
void add_exp_commands(CLI::App& app, Program& program);
void add_exp_submit_command(CLI::App& exp, Program& program);
void add_exp_pull_commands(CLI::App& exp, Program& program);
void add_demo_command(CLI::App& app, Program& program);
void add_serve_command(CLI::App& app, Program& program);
void add_admin_commands(CLI::App& app, Program& program);

}  // namespace korvalin_app
