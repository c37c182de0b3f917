#include "support/child_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace korvalin_client::testing {

ChildProcess::ChildProcess(std::vector<std::string> argv, std::string output_file)
    : output_file_(std::move(output_file)) {
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_file_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) throw std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(rc));
}

ChildProcess::~ChildProcess() {
  kill(SIGKILL);
  wait(std::chrono::seconds(60));
}

bool ChildProcess::wait(std::chrono::seconds deadline) {
  return wait_until(
      [&] {
        int status = 0;
        if (exit_code_ < 0 && ::waitpid(pid_, &status, WNOHANG) == pid_)
          exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return exit_code_ >= 0;
      },
      deadline);
}

void ChildProcess::kill(int signal) {
  if (exit_code_ < 0) ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  std::stringstream text;
  text << std::ifstream(output_file_).rdbuf();
  return text.str();
}

}  // namespace korvalin_client::testing
