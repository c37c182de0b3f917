// Files of the embedded service's stores: random names, and temporary files that are locked
// for as long as their writer lives, so that what a dead writer left behind can be removed
// without ever touching a file a live writer (in this or another process) is still writing.
//
// The scheme: a writer creates its temporary with O_EXCL, takes flock(LOCK_EX) on it, and
// then checks that the name still leads to the file it locked (retrying under a new name
// otherwise). It keeps the lock until the temporary is renamed into place or removed. The
// kernel drops a flock when the last descriptor of its open file goes, which happens when the
// writer dies however it dies (SIGKILL included). The clean-up removes only a temporary it
// can lock without waiting, and only while the name still leads to the file it locked, and
// it removes it while holding that lock. So:
//  - a temporary whose lock it gets has no live writer: either the writer died, or it has not
//    locked yet — and such a writer, once it gets the lock, finds its name gone and retries;
//  - a temporary renamed into place or removed meanwhile is left alone (the name check).
// No clock is involved, so neither clock jumps nor slow writers matter.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace korvalin_client::service::files {

// Creates `dir` and its missing parents readable by their owner only (0700, whatever the
// umask); directories that exist are left as they are. A RuntimeError naming it on failure.
void make_private_dirs(const std::string& dir);

// 2 * `bytes` lowercase hex characters from the kernel's random source (getrandom). Safe in
// forked processes: no state is shared with a parent.
std::string random_hex(std::size_t bytes);

// A new, empty temporary file "<dir>/<prefix><32 hex>", readable by its owner only (0600,
// whatever the umask; the file it becomes keeps that mode), locked (see above) until this object
// is destroyed. `target` is the file the temporary becomes; errors name it.
class LockedTemp {
 public:
  LockedTemp(const std::string& dir, std::string_view prefix, std::string target);
  // Removes the temporary (and the companions given to remove_with) unless it was placed,
  // then releases the lock.
  ~LockedTemp();
  LockedTemp(const LockedTemp&) = delete;
  LockedTemp& operator=(const LockedTemp&) = delete;

  const std::string& path() const { return path_; }

  // Files named "<path><suffix>" that go with the temporary (e.g. SQLite's "-journal") and
  // are removed with it.
  void remove_with(std::initializer_list<std::string_view> suffixes);

  // Renames the temporary over the target. A RuntimeError naming the target on failure.
  void rename_into_place();
  // Gives the temporary the target's name only if no file has it: true when it did, false
  // when another file was there first (the temporary is then removed by the destructor).
  bool link_into_place();

 private:
  [[noreturn]] void fail(int err) const;

  std::string path_;
  std::string target_;
  std::vector<std::string> companions_;
  int fd_ = -1;
  bool placed_ = false;
};

// Removes from `dir` the temporaries named "<prefix>..." whose writer is gone, with their
// companions "<name><suffix>" (see above). Files ending with one of the suffixes are
// companions, never temporaries themselves. A missing directory and files that cannot be
// opened are left alone: this is a clean-up, it never fails.
void remove_abandoned_temporaries(const std::string& dir, std::string_view prefix,
                                  std::initializer_list<std::string_view> companion_suffixes = {});

}  // namespace korvalin_client::service::files
