// The program's Env: library lines on standard error, around a status line kept in place.
#include "console.hpp"

#include <unistd.h>

#include <cstdio>

namespace korvalin_app {
namespace {

constexpr const char* kEraseLine = "\r\033[K";

}  // namespace

double ConsoleEnv::now() { return korvalin_client::Env::Default().now(); }

void ConsoleEnv::sleep(double seconds) { korvalin_client::Env::Default().sleep(seconds); }

void ConsoleEnv::print(const std::string& line) { write_line(line); }

void ConsoleEnv::print_error(const std::string& line) { write_line(line); }

void ConsoleEnv::write_line(const std::string& line) {
  std::lock_guard lock(mutex_);
  std::fflush(stdout);  // what a command printed comes first
  if (!status_.empty()) std::fputs(kEraseLine, stderr);
  std::fputs(line.c_str(), stderr);
  std::fputc('\n', stderr);
  if (!status_.empty()) std::fputs(status_.c_str(), stderr);
  std::fflush(stderr);
}

void ConsoleEnv::show_status(const std::string& text) {
  std::lock_guard lock(mutex_);
  status_ = text;
  std::fputs(kEraseLine, stderr);
  std::fputs(status_.c_str(), stderr);
  std::fflush(stderr);
}

void ConsoleEnv::end_status() {
  std::lock_guard lock(mutex_);
  if (status_.empty()) return;
  status_.clear();
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

ConsoleEnv& console() {
  static ConsoleEnv* const instance = new ConsoleEnv;
  return *instance;
}

bool stdin_is_terminal() { return ::isatty(STDIN_FILENO) == 1; }
bool stderr_is_terminal() { return ::isatty(STDERR_FILENO) == 1; }

}  // namespace korvalin_app
