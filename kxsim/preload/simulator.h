// Layer preload (kxsim/preload/): the library loaded with LD_PRELOAD. Its
// interposers (wrap/) take the calls, its driver (driver/) serves them; both
// may call this folder and core/, never cli/ or populate/.
//
// Process-wide state of the interposer, guarded by one mutex.
//
// Threading: every wrapper that does simulated work takes Simulator::Scope,
// which holds the mutex for the whole request. Internal work never calls a
// wrapped function (see sysio.h, libc_next.h); if it ever did, the nested
// wrapper sees the thread already inside and passes straight through instead
// of deadlocking (and says so when KXSIM_TRACE=1).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kxsim/core/config.h"
#include "kxsim/core/state_store.h"
#include "kxsim/preload/faults.h"
#include "kxsim/preload/inode_index.h"
#include "kxsim/preload/request.h"
#include "kxsim/preload/settings.h"

namespace kxsim {

// A line on standard error when KXSIM_TRACE=1.
void trace(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Runs simulated work behind a C entry point: an allocation failure inside
// becomes -1 with ENOMEM instead of escaping into C code.
template <typename Fn>
int guarded(Fn fn) noexcept {
  try {
    return fn();
  } catch (...) {
    errno = ENOMEM;
    return -1;
  }
}

class Simulator {
 public:
  static Simulator &instance();
  // The instance if some wrapper has made it, else null: wrappers that have
  // nothing to do in a process without the simulator must not make it.
  static Simulator *existing();

  // Holds the lock for one request. `entered()` is false when this thread is
  // already inside the simulator (the caller must pass through).
  class Scope {
   public:
    explicit Scope(const char *what);
    ~Scope();
    Scope(const Scope &) = delete;
    Scope &operator=(const Scope &) = delete;
    bool entered() const { return entered_; }

   private:
    bool entered_ = false;
  };
  // Lets go of the lock for a wait on the file system (an object's lookup,
  // an open) that touches no simulator state, so that other requests are
  // served meanwhile, as a driver serves them; takes it back when done.
  // Nothing found under the lock before may be relied on after.
  class Unlocked {
   public:
    Unlocked();
    ~Unlocked();
    Unlocked(const Unlocked &) = delete;
    Unlocked &operator=(const Unlocked &) = delete;

   private:
    bool released_ = false;
  };
  // True while this thread holds the lock (runs simulator code).
  static bool inside();

  // Everything below requires a Scope.

  // Takes the settings again when the environment changed, and re-reads
  // the configuration when its path or modification time changed: one stat
  // of it per call, and every request calls this once. false when it cannot
  // be used (then no mount is simulated).
  bool refresh();
  const Config &config() const { return config_; }
  // Modification time of the configuration: the mount table's change time.
  timespec config_mtime() const { return config_mtime_; }
  StateStore &store() { return store_; }
  FaultSet &faults() { return faults_; }
  InodeIndex &index() { return index_; }

  // Checks the fault rules, writes the log line and sets errno; returns the
  // request's result. `err` 0 means success with `result`.
  int finish(RequestInfo &info, int result, int err);
  // Fault check for a request about to run: the errno to fail with, or 0.
  int injected(const RequestInfo &info) { return faults_.check(info); }

  // Descriptors of the control device handed out by the wrappers.
  void add_control_fd(int fd);
  bool is_control_fd(int fd);
  void forget_fd(int fd);
  bool has_control_fds() const { return control_count_.load(std::memory_order_relaxed) > 0; }

 private:
  Simulator() = default;
  struct ControlFd {
    int fd;
    dev_t dev;
    ino_t ino;
  };

  Settings settings_;
  std::uint64_t settings_version_ = 0;  // of settings_; 0: never taken
  std::string config_path_;
  timespec config_mtime_{};
  ino_t config_ino_ = 0;
  off_t config_size_ = -1;
  bool config_ok_ = false;
  Config config_;
  StateStore store_{""};
  FaultSet faults_;
  InodeIndex index_;
  std::vector<ControlFd> control_fds_;
  std::atomic<int> control_count_{0};
};

}  // namespace kxsim
