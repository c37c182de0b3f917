#include "korvalin_client/service/write_faults.hpp"

#include <atomic>
#include <memory>
#include <mutex>

namespace korvalin_client::service {
namespace {

std::mutex g_mutex;
std::shared_ptr<WriteFaultHook> g_hook;  // guarded by g_mutex
std::atomic<bool> g_installed{false};

}  // namespace

WriteFaultHook set_write_fault_hook(WriteFaultHook hook) {
  std::lock_guard lock(g_mutex);
  WriteFaultHook previous = g_hook ? *g_hook : WriteFaultHook{};
  g_hook = hook ? std::make_shared<WriteFaultHook>(std::move(hook)) : nullptr;
  g_installed = static_cast<bool>(g_hook);
  return previous;
}

int injected_write_error(const std::string& path) {
  if (!g_installed.load(std::memory_order_relaxed)) return 0;
  std::shared_ptr<WriteFaultHook> hook;
  {
    std::lock_guard lock(g_mutex);
    hook = g_hook;
  }
  return hook ? (*hook)(path) : 0;
}

}  // namespace korvalin_client::service
