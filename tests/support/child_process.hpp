// ChildProcess: a program started by a test, with its output in a file, waited for with a
// deadline and killed on destruction if it still runs.
#pragma once

#include <sys/types.h>

#include <chrono>
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
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // Waits until the program has ended or the deadline passed; true when it has ended.
  bool wait(std::chrono::seconds deadline);
  // The exit code, or 128 + the signal that ended it; -1 while it runs.
  int exit_code() const { return exit_code_; }
  void kill(int signal);
  // What it has written so far.
  std::string output() const;

 private:
  pid_t pid_ = -1;
  int exit_code_ = -1;
  std::string output_file_;
};

}  // namespace korvalin_client::testing
