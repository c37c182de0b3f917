// Huge pages for large fresh buffers: result columns, downloaded bodies.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>

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

}  // namespace korvalin_client::utils
