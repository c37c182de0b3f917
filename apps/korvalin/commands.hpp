// The commands of the korvalin program, one file each. A command gets the arguments after
// its name and returns the exit code; a std::invalid_argument is a usage error (exit 2).
#pragma once

#include <string>
#include <vector>

namespace korvalin_app {

int run_demo(const std::vector<std::string>& args);
int run_admin(const std::vector<std::string>& args);
int run_serve(const std::vector<std::string>& args);

}  // namespace korvalin_app
