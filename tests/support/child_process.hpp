// ChildProcess: a program started by a test, or a forked copy of the test running a function;
// waited for with a deadline and killed on destruction if it still runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace korvalin_client::testing {

// Waits until `condition()` holds, checking every 20 ms, for at most `deadline`; true when it
// held.
template <class Condition>
bool wait_until(Condition condition, std::chrono::seconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

class ChildProcess {
 public:
  // Starts `argv[0]` with `argv` and the test's environment, standard output and error going to
  // `output_file`. A std::runtime_error when it cannot start.
  ChildProcess(std::vector<std::string> argv, std::string output_file);
  // Forks the test; the copy runs `body` and exits with 0 when it returned true, 1 when it
  // returned false or threw.
  explicit ChildProcess(const std::function<bool(ChildProcess&)>& body);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the process has ended or the deadline passed; its exit code (or 128 + the
  // signal that ended it) if it ended, else -1.
  int wait(std::chrono::seconds deadline = std::chrono::seconds(60));
  void kill(int signal);
  // What the program has written so far.
  std::string output() const;

  // A forked body and the test meet half way: the body's meet() tells the test's wait_ready()
  // that it got there (false after 60 s without), then waits for the test's go().
  void meet();
  bool wait_ready();
  void go();

 private:
  pid_t pid_ = -1;
  int exit_code_ = -1;
  std::string output_file_;
  int ready_[2] = {-1, -1};
  int go_[2] = {-1, -1};
};

}  // namespace korvalin_client::testing
