// ConsoleEnv: the Env the korvalin program installs. The clock and pauses are the default
// Env's (so Ctrl-C still ends a pause with korvalin_client::Interrupted); every line the
// library prints goes to standard error, which leaves standard output to what a command prints
// (a table, or the one JSON document of --json). On a terminal it also keeps one status line
// (a progress bar) redrawn in place below those lines.
#pragma once

#include <mutex>
#include <string>

#include "korvalin_client/utils/env.hpp"

namespace korvalin_app {

class ConsoleEnv : public korvalin_client::Env {
 public:
  double now() override;
  void sleep(double seconds) override;
  void print(const std::string& line) override;
  void print_error(const std::string& line) override;

  // Shows `text` as the status line on standard error, in place of the one shown before. Only
  // for a terminal: it is drawn with a carriage return and an erase-line sequence.
  void show_status(const std::string& text);
  // Leaves the status line on screen and ends it, so that what follows starts a new line.
  void end_status();

 private:
  void write_line(const std::string& line);

  std::mutex mutex_;
  std::string status_;  // the status line on screen; empty when none
};

// The program's console, installed as the Env by main (never destroyed: a worker of the
// library may still print while the program exits).
ConsoleEnv& console();

// Whether standard input, or standard error, is a terminal.
bool stdin_is_terminal();
bool stderr_is_terminal();

}  // namespace korvalin_app
