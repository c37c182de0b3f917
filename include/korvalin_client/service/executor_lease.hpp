// ExecutorLease: which process may run a store's experiments.
//
// Exactly one executor owns a storage directory at a time. Ownership is an exclusive flock()
// on "executor.lock" in the storage directory, held for as long as the lease object holds
// its descriptor. The kernel drops the lock the moment the owning process exits or dies (a
// crash, SIGKILL, an out-of-memory kill), so a waiting executor can take over at its next
// try, and no clock, heartbeat or timeout decides that an owner is gone: a stopped or slow
// owner keeps its lease, a dead one never does. While it holds the lock the owner writes its
// process id and host into the file, for people and error messages only.
//
// Two leases on the same directory conflict also inside one process (each opens its own
// descriptor). The storage directory must be on a local file system, where flock() is
// honoured between all processes; to share a store across machines, serve it.
#pragma once

#include <string>

namespace korvalin_client::service {

class ExecutorLease {
 public:
  static constexpr const char* kFileName = "executor.lock";

  // Does not take the lease; `storage_dir` is created when missing.
  explicit ExecutorLease(std::string storage_dir);
  ~ExecutorLease();
  ExecutorLease(const ExecutorLease&) = delete;
  ExecutorLease& operator=(const ExecutorLease&) = delete;

  // Takes the lease when no one holds it; true when this object holds it (now or already).
  // Never blocks. A RuntimeError naming the file when it cannot be opened or locked for
  // another reason than a holder.
  bool try_acquire();
  // Gives the lease up (no-op when not held).
  void release();
  bool held() const { return fd_ >= 0; }

  // What the holder wrote into the lock file ("pid 123 on host"), or "" when nobody holds it
  // or it cannot be read.
  std::string holder() const;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int fd_ = -1;
};

}  // namespace korvalin_client::service
