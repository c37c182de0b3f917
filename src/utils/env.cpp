#include "korvalin_client/utils/env.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <thread>

#include "korvalin_client/utils/errors.hpp"

namespace korvalin_client {
namespace {

std::atomic<bool> g_interrupt{false};

class SystemEnv final : public Env {
 public:
  double now() override {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
  }

  // Sleeps in short slices so that request_interrupt() ends a long pause promptly.
  void sleep(double seconds) override {
    using namespace std::chrono;
    if (!(seconds > 0)) {
      if (interrupt_requested()) throw Interrupted{};
      return;
    }
    const auto end = steady_clock::now() + duration_cast<steady_clock::duration>(
                                               duration<double>(seconds));
    for (;;) {
      if (interrupt_requested()) throw Interrupted{};
      const auto now = steady_clock::now();
      if (now >= end) return;
      std::this_thread::sleep_for(std::min<steady_clock::duration>(end - now, milliseconds(50)));
    }
  }

  void print(const std::string& line) override { write(stdout, line); }
  void print_error(const std::string& line) override { write(stderr, line); }

 private:
  void write(std::FILE* stream, const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::fwrite(line.data(), 1, line.size(), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
  }

  std::mutex mutex_;
};

std::atomic<Env*> g_env{nullptr};

}  // namespace

Env& Env::Default() {
  // Never destroyed: threads still running at exit (a service worker being stopped) may pause
  // or print through it after static destruction has begun.
  static SystemEnv* const env = new SystemEnv;
  return *env;
}

Env& env() {
  Env* e = g_env.load(std::memory_order_acquire);
  return e ? *e : Env::Default();
}

Env* set_env(Env* e) { return g_env.exchange(e, std::memory_order_acq_rel); }

void request_interrupt() noexcept { g_interrupt.store(true, std::memory_order_relaxed); }
bool interrupt_requested() noexcept { return g_interrupt.load(std::memory_order_relaxed); }
void clear_interrupt() noexcept { g_interrupt.store(false, std::memory_order_relaxed); }

}  // namespace korvalin_client
