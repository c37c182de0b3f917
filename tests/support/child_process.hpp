// ChildProcess: a program started by a test, with its output in a file, waited for with a
// deadline and killed on destruction if it still runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace korvalin_client::testing {

class ChildProcess {
 public:
  // Starts `argv[0]` with `argv`, the test's environment plus `env` (set, or replaced), and
  // standard output and error going to `output_file`. A std::runtime_error when it cannot start.
  ChildProcess(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
               std::string output_file);
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

// Waits until `condition()` holds, checking every 20 ms, for at most `deadline`; true when it
// held.
template <class Condition>
bool wait_until(Condition condition, std::chrono::seconds deadline);

}  // namespace korvalin_client::testing

#include <thread>

template <class Condition>
bool korvalin_client::testing::wait_until(Condition condition, std::chrono::seconds deadline) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
