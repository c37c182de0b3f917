// Env: the one door through which the library reads the clock, pauses and prints.
//
// Every pause (sleep), every clock read (now) and every progress or warning line (print) of
// the library goes through the installed Env, so a test installs a fake one and runs a
// 300-second wait in microseconds while counting the pauses it asked for. The default Env
// uses the real clock, really sleeps, and writes lines to standard output and error.
#pragma once

#include <cstdint>
#include <string>

namespace korvalin_client {

class Env {
 public:
  virtual ~Env() = default;

  // Wall-clock time in seconds since the epoch.
  virtual double now() = 0;
  // Pauses the calling thread. May throw korvalin_client::Interrupted.
  virtual void sleep(double seconds) = 0;
  // Writes one line (a line break is added) to standard output.
  virtual void print(const std::string& line) = 0;
  // Writes one line (a line break is added) to standard error.
  virtual void print_error(const std::string& line) = 0;

  // A background worker of the library (the embedded service's executor) starts or ends its
  // work on the calling thread. The default Env ignores both; a test Env that schedules
  // threads against its clock uses them to know which threads take part.
  virtual void worker_begins() {}
  virtual void worker_ends() {}

  // The current time in whole seconds since the epoch (truncated).
  std::int64_t now_seconds() { return static_cast<std::int64_t>(now()); }

  // The real Env: system clock, real sleep, standard streams (lines never interleave).
  static Env& Default();
};

// The Env in use: the one installed with set_env, else Env::Default().
Env& env();

// Installs `e` (null restores the default) and returns the one installed before.
// The Env must outlive its installation.
Env* set_env(Env* e);

// Installs an Env for the lifetime of a scope and restores the previous one afterwards.
class ScopedEnv {
 public:
  explicit ScopedEnv(Env& e) : previous_(set_env(&e)) {}
  ~ScopedEnv() { set_env(previous_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  Env* previous_;
};

// Asks every pause of the default Env to end with korvalin_client::Interrupted.
// Async-signal-safe: a SIGINT handler may call it.
void request_interrupt() noexcept;
bool interrupt_requested() noexcept;
void clear_interrupt() noexcept;

}  // namespace korvalin_client
