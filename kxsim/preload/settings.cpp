#include "kxsim/preload/settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "kxsim/core/config_path.h"
#include "kxsim/preload/simulator.h"

namespace kxsim {

namespace {
enum Mode : int { kOff, kNamed, kDefault };

constinit std::atomic<std::uint64_t> g_env_changes{0};
// What the cached settings were read from; the first check always reads.
constinit std::atomic<std::uint64_t> g_read_at_changes{~std::uint64_t{0}};
constinit std::atomic<char **> g_read_at_environ{nullptr};

constinit std::atomic<int> g_mode{kOff};
constinit std::atomic<bool> g_observe{false};
constinit std::atomic<bool> g_trace{false};
constinit std::atomic<long> g_latency_us{0};
constinit std::atomic<std::uint64_t> g_version{0};

// Guarded by the simulator's lock. Never destroyed: wrappers may run from
// other libraries' exit handlers.
Settings &stored() {
  static Settings *settings = new Settings();
  return *settings;
}

// Whether the per-user default exists, and the coarse monotonic second up
// to which that answer stands: the second of the look when the fast path
// looked, the next one when a request did. Most processes of a test run have
// no configuration and open files all the time, so they look once a second;
// while requests come, each of them stats the file anyway and the fast path
// never needs a look of its own.
constinit std::atomic<bool> g_default_present{false};
constinit std::atomic<std::int64_t> g_default_valid_until{-1};

std::int64_t coarse_second() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

// Runs fn under the simulator's lock, which this thread may already hold.
template <typename Fn>
void under_lock(Fn fn) {
  if (Simulator::inside()) {
    fn();
    return;
  }
  Simulator::Scope scope("settings");
  if (scope.entered()) fn();
}

std::string variable(const char *name) {
  const char *v = std::getenv(name);
  return v ? v : "";
}

// Microseconds of KXSIM_LATENCY_US; 0 unless it is a plain number up to a
// second's million.
long latency_from(const std::string &text) {
  long us = 0;
  for (char c : text) {
    if (c < '0' || c > '9' || us > 1000000) return 0;
    us = us * 10 + (c - '0');
  }
  return us <= 1000000 ? us : 0;
}

bool stale() {
  return g_env_changes.load(std::memory_order_acquire) !=
             g_read_at_changes.load(std::memory_order_acquire) ||
         environ != g_read_at_environ.load(std::memory_order_acquire);
}

// Requires the lock.
void reload() {
  // The counter is taken before the variables: a change racing with this
  // read leaves the counter ahead, and the next check reads again.
  std::uint64_t changes = g_env_changes.load(std::memory_order_acquire);
  char **env = environ;
  if (changes == g_read_at_changes.load(std::memory_order_relaxed) &&
      env == g_read_at_environ.load(std::memory_order_relaxed)) {
    return;
  }
  Settings s;
  const char *named = std::getenv("KXSIM_CONFIG");
  s.config = named ? named : default_config_path();
  s.config_is_default = named == nullptr;
  s.log = variable("KXSIM_LOG");
  s.faults = variable("KXSIM_FAULTS");
  s.faults_file = variable("KXSIM_FAULTS_FILE");
  s.trace = variable("KXSIM_TRACE") == "1";
  int mode = s.config.empty() ? kOff : named ? kNamed : kDefault;
  Settings &kept = stored();
  if (mode == kDefault && (!kept.config_is_default || kept.config != s.config)) {
    g_default_valid_until.store(-1, std::memory_order_relaxed);  // another file: look again
  }
  g_mode.store(mode, std::memory_order_relaxed);
  g_observe.store(!s.log.empty() || !s.faults.empty() || !s.faults_file.empty(),
                  std::memory_order_relaxed);
  g_trace.store(s.trace, std::memory_order_relaxed);
  g_latency_us.store(latency_from(variable("KXSIM_LATENCY_US")), std::memory_order_relaxed);
  kept = std::move(s);
  g_version.fetch_add(1, std::memory_order_release);
  g_read_at_environ.store(env, std::memory_order_release);
  g_read_at_changes.store(changes, std::memory_order_release);
}

void sync() {
  if (stale()) under_lock(reload);
}

bool default_present() {
  std::int64_t now = coarse_second();
  if (now > g_default_valid_until.load(std::memory_order_relaxed)) {
    under_lock([now] {
      const Settings &s = stored();
      struct stat st {};
      g_default_present.store(
          s.config_is_default && !s.config.empty() && stat(s.config.c_str(), &st) == 0,
          std::memory_order_relaxed);
      g_default_valid_until.store(now, std::memory_order_relaxed);
    });
  }
  return g_default_present.load(std::memory_order_relaxed);
}
}  // namespace

bool simulator_configured() {
  sync();
  switch (g_mode.load(std::memory_order_relaxed)) {
    case kNamed:
      return true;
    case kDefault:
      return default_present();
    default:
      return false;
  }
}

bool observation_wanted() {
  sync();
  return g_observe.load(std::memory_order_relaxed);
}

bool tracing() {
  sync();
  return g_trace.load(std::memory_order_relaxed);
}

void wait_request_latency() {
  sync();
  const long us = g_latency_us.load(std::memory_order_relaxed);
  if (us <= 0) return;
  timespec pause{us / 1000000, (us % 1000000) * 1000};
  while (clock_nanosleep(CLOCK_MONOTONIC, 0, &pause, &pause) == EINTR) {
  }
}

std::uint64_t settings_version() {
  sync();
  return g_version.load(std::memory_order_acquire);
}

Settings current_settings() {
  sync();
  return stored();
}

void note_default_config(bool present) {
  g_default_present.store(present, std::memory_order_relaxed);
  g_default_valid_until.store(coarse_second() + 1, std::memory_order_relaxed);
}

void note_environment_change() {
  g_env_changes.fetch_add(1, std::memory_order_release);
}

}  // namespace kxsim
