// korvalin: the command-line program of korvalin_client. One file per group of commands
// (cli.hpp); this one builds the command line, runs the command it selected and turns failures
// into exit codes: 0 success, 1 an error, 2 a usage error, 130 an interruption (Ctrl-C).
#include <csignal>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "cli.hpp"
#include "console.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace {

namespace kc = korvalin_client;
using namespace korvalin_app;

constexpr const char* kFooter = R"(
The program works on the embedded service, whose store is $KORVALIN_STORAGE_DIR, or on the
server that $KORVALIN_SERVICE_URL names ($KORVALIN_TOKEN: your token). Caches and results are
kept under $KORVALIN_CACHE_DIR. --group and --space may be given as $KORVALIN_GROUP and
$KORVALIN_SPACE. Exit codes: 0 success, 1 error, 2 usage error, 130 interrupted.
See docs/cli.md.
)";

void on_interrupt(int) { kc::request_interrupt(); }

int run(int argc, char** argv) {
  CLI::App app("korvalin: device groups, their parameters and experiments, from the terminal",
               "korvalin");
  app.require_subcommand(1);
  app.set_version_flag("--version", std::string("korvalin ") + KORVALIN_VERSION);
  Program program;
  add_groups_commands(app, program);
  add_spaces_commands(app, program);
  add_params_commands(app, program);
  add_exp_commands(app, program);
  add_demo_command(app, program);
  add_serve_command(app, program);
  add_admin_commands(app, program);
  app.footer(kFooter);  // after the commands, which would inherit it

  if (argc < 2) {
    std::cerr << app.help();
    return 2;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    // A word where a command was needed is named, rather than reported as a missing command.
    CLI::App* at = &app;
    std::string path = "korvalin";
    while (!at->get_subcommands().empty()) {
      at = at->get_subcommands().front();
      path += " " + at->get_name();
    }
    const std::vector<std::string> rest = at->remaining();
    if (dynamic_cast<const CLI::RequiredError*>(&e) && at->get_require_subcommand_min() > 0) {
      if (rest.empty()) {
        std::cerr << "korvalin: " << path.substr(path.find(' ') + 1) << " needs a command (see "
                  << path << " --help)\n";
      } else {
        std::cerr << "korvalin: unknown command \"" << rest.front() << "\" (see " << path
                  << " --help)\n";
      }
    } else {
      std::cerr << "korvalin: " << e.what() << " (see " << path << " --help)\n";
    }
    return 2;
  }
  try {
    return program.run();
  } catch (const UsageError& e) {
    std::cerr << "korvalin: " << e.what() << " (see --help)\n";
    return 2;
  } catch (const kc::Interrupted&) {
    console().end_status();
    std::cerr << "korvalin: interrupted\n";
    return 130;
  } catch (const std::exception& e) {
    console().end_status();
    std::cerr << "korvalin: " << e.what() << "\n";
    return 1;
  }
}

}  // namespace

int main(int argc, char** argv) {
  kc::set_env(&console());
  std::signal(SIGINT, on_interrupt);
  const int code = run(argc, argv);
  // Stop the embedded service (and its worker) before static destruction begins.
  kc::com::connection_manager::set_backend(nullptr);
  return code;
}
