#include "support/child_process.hpp"

#include <fcntl.h>
#include <poll.h>
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

ChildProcess::ChildProcess(const std::function<bool(ChildProcess&)>& body) {
  if (::pipe(ready_) != 0 || ::pipe(go_) != 0) throw std::runtime_error("pipe failed");
  if ((pid_ = ::fork()) < 0) throw std::runtime_error("fork failed");
  // Each side keeps the ends it uses, so that a reader sees the end of a dead writer.
  for (int* fd : {pid_ == 0 ? &ready_[0] : &ready_[1], pid_ == 0 ? &go_[1] : &go_[0]}) {
    ::close(*fd);
    *fd = -1;
  }
  if (pid_ == 0) {
    bool ok = false;
    try {
      ok = body(*this);
    } catch (...) {
    }
    ::_exit(ok ? 0 : 1);
  }
}

ChildProcess::~ChildProcess() {
  kill(SIGKILL);
  wait();
  for (int fd : {ready_[0], ready_[1], go_[0], go_[1]})
    if (fd >= 0) ::close(fd);
}

int ChildProcess::wait(std::chrono::seconds deadline) {
  wait_until(
      [&] {
        int status = 0;
        if (exit_code_ < 0 && ::waitpid(pid_, &status, WNOHANG) == pid_)
          exit_code_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        return exit_code_ >= 0;
      },
      deadline);
  return exit_code_;
}

void ChildProcess::kill(int signal) {
  if (exit_code_ < 0) ::kill(pid_, signal);
}

std::string ChildProcess::output() const {
  std::stringstream text;
  text << std::ifstream(output_file_).rdbuf();
  return text.str();
}

void ChildProcess::meet() {
  char c = 0;
  if (::write(ready_[1], "r", 1) == 1) (void)!::read(go_[0], &c, 1);
}

bool ChildProcess::wait_ready() {
  pollfd p{ready_[0], POLLIN, 0};
  char c = 0;
  return ::poll(&p, 1, 60'000) == 1 && ::read(ready_[0], &c, 1) == 1;
}

void ChildProcess::go() { (void)!::write(go_[1], "g", 1); }

}  // namespace korvalin_client::testing
