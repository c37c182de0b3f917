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
#include <thread>

extern char** environ;

namespace korvalin_client::testing {

ChildProcess::ChildProcess(const std::vector<std::string>& argv,
                           const std::map<std::string, std::string>& env, std::string output_file)
    : output_file_(std::move(output_file)) {
  std::map<std::string, std::string> all;
  for (char** e = environ; *e; ++e) {
    const std::string entry(*e);
    const auto eq = entry.find('=');
    if (eq != std::string::npos) all[entry.substr(0, eq)] = entry.substr(eq + 1);
  }
  for (const auto& [k, v] : env) all[k] = v;
  std::vector<std::string> env_text;
  for (const auto& [k, v] : all) env_text.push_back(k + "=" + v);
  std::vector<char*> envp, args;
  for (auto& e : env_text) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::vector<std::string> argv_copy = argv;
  for (auto& a : argv_copy) args.push_back(a.data());
  args.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output_file_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  const int rc = posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    throw std::runtime_error("cannot start " + argv.at(0) + ": " + std::strerror(rc));
  }
}

ChildProcess::~ChildProcess() {
  if (exit_code_ < 0 && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
}

bool ChildProcess::wait(std::chrono::seconds deadline) {
  return wait_until(
      [&] {
        if (exit_code_ >= 0) return true;
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
        exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return true;
      },
      deadline);
}

void ChildProcess::kill(int signal) {
  if (exit_code_ < 0) ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  std::ifstream in(output_file_);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace korvalin_client::testing
