#include "support/fake_env.hpp"

namespace korvalin_client::testing {

double FakeEnv::now() {
  std::lock_guard<std::mutex> lock(mutex_);
  return now_;
}

void FakeEnv::sleep(double seconds) {
  std::function<void(double)> hook;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sleeps_.push_back(seconds);
    if (seconds > 0) now_ += seconds;
    hook = hook_;
  }
  if (hook) hook(seconds);
}

void FakeEnv::print(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back(line);
}

void FakeEnv::print_error(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  error_lines_.push_back(line);
}

void FakeEnv::advance(double seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  now_ += seconds;
}

void FakeEnv::set_now(double t) {
  std::lock_guard<std::mutex> lock(mutex_);
  now_ = t;
}

std::vector<double> FakeEnv::sleeps() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return sleeps_;
}

int FakeEnv::count_sleeps(double seconds) const {
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (double s : sleeps_) n += s == seconds;
  return n;
}

double FakeEnv::total_slept() const {
  std::lock_guard<std::mutex> lock(mutex_);
  double total = 0;
  for (double s : sleeps_) total += s;
  return total;
}

std::vector<std::string> FakeEnv::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> FakeEnv::error_lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return error_lines_;
}

std::vector<std::string> FakeEnv::lines_containing(const std::string& needle) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto& l : lines_)
    if (l.find(needle) != std::string::npos) out.push_back(l);
  return out;
}

void FakeEnv::clear_output() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
  error_lines_.clear();
}

void FakeEnv::on_sleep(std::function<void(double)> hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

}  // namespace korvalin_client::testing
