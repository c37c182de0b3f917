// Write faults: a seam through which tests make the service's writes fail as a full disk or a
// failing device would, without filling a real disk.
//
// Every write of the store (each write transaction), of the object store (each object
// written) and of the executor's space reserve first asks injected_write_error() with the file
// it is about to write. A non-zero
// answer is an errno value (ENOSPC, EIO, ...): the write then fails exactly as it would have
// with that error from the operating system, with the same exception type and a message
// naming the file and the error. With no hook installed (always, outside tests) the question
// costs one atomic load.
#pragma once

#include <functional>
#include <string>

namespace korvalin_client::service {

// Answers, for the file about to be written, 0 (go ahead) or the errno to fail with.
using WriteFaultHook = std::function<int(const std::string& path)>;

// Installs the hook for the whole process (null removes it); returns the one installed before.
WriteFaultHook set_write_fault_hook(WriteFaultHook hook);

// 0, or the errno the installed hook wants the write of `path` to fail with.
int injected_write_error(const std::string& path);

// Installs a hook for a scope and restores the previous one afterwards.
class ScopedWriteFaults {
 public:
  explicit ScopedWriteFaults(WriteFaultHook hook)
      : previous_(set_write_fault_hook(std::move(hook))) {}
  ~ScopedWriteFaults() { set_write_fault_hook(std::move(previous_)); }
  ScopedWriteFaults(const ScopedWriteFaults&) = delete;
  ScopedWriteFaults& operator=(const ScopedWriteFaults&) = delete;

 private:
  WriteFaultHook previous_;
};

}  // namespace korvalin_client::service
