// FakeEnv: a virtual clock, recorded pauses that advance it, and captured output lines.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "korvalin_client/utils/env.hpp"

namespace korvalin_client::testing {

class FakeEnv : public Env {
 public:
  explicit FakeEnv(double start = 1700000000.0) : now_(start) {}

  double now() override;
  // Records the pause and advances the clock by it; never blocks. Runs the hook (if any)
  // after advancing, so a test can make the world change while the code "sleeps".
  void sleep(double seconds) override;
  void print(const std::string& line) override;
  void print_error(const std::string& line) override;

  void advance(double seconds);
  void set_now(double t);

  std::vector<double> sleeps() const;
  // How many pauses of exactly `seconds` were asked for.
  int count_sleeps(double seconds) const;
  double total_slept() const;
  std::vector<std::string> lines() const;
  std::vector<std::string> error_lines() const;
  // The output lines that contain `needle`.
  std::vector<std::string> lines_containing(const std::string& needle) const;
  void clear_output();

  // Called after every pause with the pause's length.
  void on_sleep(std::function<void(double)> hook);

 private:
  mutable std::mutex mutex_;
  double now_;
  std::vector<double> sleeps_;
  std::vector<std::string> lines_;
  std::vector<std::string> error_lines_;
  std::function<void(double)> hook_;
};

// Installs a FakeEnv for the lifetime of a test.
class ScopedFakeEnv : public FakeEnv {
 public:
  explicit ScopedFakeEnv(double start = 1700000000.0) : FakeEnv(start), scope_(*this) {}

 private:
  ScopedEnv scope_;
};

}  // namespace korvalin_client::testing
