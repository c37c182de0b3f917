// The options several commands share, and how a command is registered.
#include "cli.hpp"

#include <utility>

namespace korvalin_app {

CLI::App* add_command(CLI::App& parent, const std::string& name, const std::string& description,
                      Program& program, std::function<int()> run) {
  CLI::App* command = parent.add_subcommand(name, description);
  command->callback([&program, run = std::move(run)] { program.run = run; });
  return command;
}

CLI::App* add_command_group(CLI::App& parent, const std::string& name,
                            const std::string& description) {
  return parent.add_subcommand(name, description)->require_subcommand(1);
}

void add_json_flag(CLI::App& command, bool& json) {
  command.add_flag("--json", json, "Print one JSON document on standard output");
}

void add_target_options(CLI::App& command, Target& target, bool with_space) {
  command.add_option("-g,--group", target.group, "The device group")
      ->required()
      ->envname("KORVALIN_GROUP");
  if (with_space) {
    command.add_option("-s,--space", target.space, "The space of the group")
        ->capture_default_str()
        ->envname("KORVALIN_SPACE");
  }
}

void add_page_options(CLI::App& command, Page& page) {
  command.add_option("--page", page.page, "The page to show (from 1)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  command.add_option("--per-page", page.per_page, "Entries per page")
      ->capture_default_str()
      ->check(CLI::Range(1, 1000));
}

}  // namespace korvalin_app
