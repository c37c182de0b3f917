// korvalin: the command-line program of korvalin_client. One file per command
// (commands.hpp); this one picks the command and turns failures into exit codes.
#include <csignal>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.hpp"
#include "korvalin_client/com/connection_manager.hpp"
#include "korvalin_client/utils/env.hpp"
#include "korvalin_client/utils/errors.hpp"

namespace {

namespace kc = korvalin_client;

constexpr const char* kUsage = R"(usage: korvalin <command> [options]

Commands:
  demo      Run a whole experiment on the embedded service (or on the server that
            KORVALIN_SERVICE_URL names): create (or reuse) a device group, select its
            "origin" space, set parameters, submit a Rabi scan into the folder
            AutoCali/rabi/q0, follow it live and summarise its result.
              --group NAME   the device group to use (default: demo)
              --points N     points of the amplitude sweep (default: 101)
              --org ID       the organisation of a group it creates (default: 1, the
                             store's first one; a server's user gives their own)
  admin     Users, their tokens and their rights, in the store under --storage DIR
            (default: $KORVALIN_STORAGE_DIR); safe while a server runs on it.
              user add NAME [--org ORG]        a user of organisation ORG (created when
                                               new; default: the local one)
              token create NAME                a new token, shown once on the last line
              token revoke NAME                revokes every token of NAME
              right grant|revoke NAME GROUP READ|WRITE
  serve     Serve a storage directory over HTTP to the team (docs/http.md) and run its
            experiments; SIGTERM or Ctrl-C stops it cleanly.
              --listen HOST:PORT   where to listen (default: 127.0.0.1:8470; port 0: any)
              --storage DIR        the store (default: $KORVALIN_STORAGE_DIR)
              --threads N          connections served at once (default: 64)
              --max-body BYTES     largest operation body (default: 32 MiB)
              --max-object BYTES   largest uploaded object (default: 1 GiB)

Options:
  -h, --help   show this help

Files live under $KORVALIN_STORAGE_DIR (the embedded service's store) and
$KORVALIN_CACHE_DIR (the client's caches and results).
)";

void on_interrupt(int) { kc::request_interrupt(); }

struct Command {
  const char* name;
  int (*run)(const std::vector<std::string>& args);
};

constexpr Command kCommands[] = {
    {"demo", korvalin_app::run_demo},
    {"admin", korvalin_app::run_admin},
    {"serve", korvalin_app::run_serve},
};

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "-h" || args[0] == "--help" || args[0] == "help") {
    std::cout << kUsage;
    return args.empty() ? 2 : 0;
  }
  std::signal(SIGINT, on_interrupt);
  int code = 2;
  try {
    const Command* command = nullptr;
    for (const auto& c : kCommands)
      if (args[0] == c.name) command = &c;
    if (command) {
      code = command->run(std::vector<std::string>(args.begin() + 1, args.end()));
    } else {
      std::cerr << "korvalin: unknown command \"" << args[0] << "\" (see korvalin --help)\n";
    }
  } catch (const std::invalid_argument& e) {
    std::cerr << "korvalin: " << e.what() << " (see korvalin --help)\n";
    code = 2;
  } catch (const kc::Interrupted&) {
    std::cerr << "korvalin: interrupted\n";
    code = 130;
  } catch (const std::exception& e) {
    std::cerr << "korvalin: " << e.what() << "\n";
    code = 1;
  }
  // Stop the embedded service (and its worker) before static destruction begins.
  kc::com::connection_manager::set_backend(nullptr);
  return code;
}
