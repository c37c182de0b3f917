// Large fresh buffers (result columns, downloaded bodies): huge pages for them, and their
// pages faulted in ahead of the code that fills them.
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <algorithm>
#include <cstdint>
#include <thread>

namespace korvalin_client::utils {

// Asks the kernel to back the 2 MiB-aligned middle of [data, data + bytes), a buffer not yet
// touched, with huge pages. Fresh memory is faulted in on first write: at 4 KiB a page the
// faults of a GiB (262144 of them) cost several times the copy or read that causes them, at
// 2 MiB they cost about as much as zeroing the memory. Only a hint: where it is refused or
// huge pages are off, nothing changes.
inline void advise_huge_pages(const void* data, std::size_t bytes) {
#ifdef MADV_HUGEPAGE
  constexpr std::uintptr_t kHuge = std::uintptr_t{2} << 20;
  const auto at = reinterpret_cast<std::uintptr_t>(data);
  const std::uintptr_t begin = (at + kHuge - 1) & ~(kHuge - 1);
  const std::uintptr_t end = (at + bytes) & ~(kHuge - 1);
  if (end > begin) ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)bytes;
#endif
}

// Faults in the pages of [data, data + bytes), a buffer about to be filled from the start, on
// a thread of its own, while the caller fills it: the first touch of fresh memory costs the
// kernel (and, in a virtual machine, its host) more than the copy that fills it, and this way
// it is paid on another core, ahead of the copy. Stops at destruction; the buffer must outlive
// it. Only a help: where the kernel cannot populate (before Linux 5.14), nothing is done.
class FaultAhead {
 public:
  FaultAhead(void* data, std::size_t bytes) {
#ifdef __linux__
    constexpr std::uintptr_t kPage = 4096;
    const auto at = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t begin = (at + kPage - 1) & ~(kPage - 1);
    const std::uintptr_t end = (at + bytes) & ~(kPage - 1);
    if (end <= begin) return;
    toucher_ = std::thread([this, begin, end] {
      constexpr int kPopulateWrite = 23;  // MADV_POPULATE_WRITE, Linux 5.14
      constexpr std::uintptr_t kStep = std::uintptr_t{8} << 20;
      for (std::uintptr_t p = begin; p < end && !stop_.load(std::memory_order_relaxed);
           p += kStep) {
        const std::size_t n = static_cast<std::size_t>(std::min(kStep, end - p));
        if (::madvise(reinterpret_cast<void*>(p), n, kPopulateWrite) != 0) break;
      }
    });
#else
    (void)data;
    (void)bytes;
#endif
  }
  ~FaultAhead() {
    stop_ = true;
    if (toucher_.joinable()) toucher_.join();
  }
  FaultAhead(const FaultAhead&) = delete;
  FaultAhead& operator=(const FaultAhead&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::thread toucher_;
};

}  // namespace korvalin_client::utils
