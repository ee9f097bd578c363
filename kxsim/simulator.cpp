#include "kxsim/simulator.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kxsim/config_path.h"
#include "kxsim/request_log.h"
#include "kxsim/sysio.h"

namespace kxsim {

namespace {
constinit std::mutex g_lock;
// Set while this thread runs simulator code; initial-exec so that reading it
// never allocates (the loader may run wrappers before TLS is set up lazily).
__attribute__((tls_model("initial-exec"))) thread_local bool t_inside = false;
__attribute__((tls_model("initial-exec"))) thread_local bool t_forking = false;

// A child forked while another thread holds the lock would inherit it held
// and deadlock in its first wrapper: hold it across fork.
void before_fork() {
  if (t_inside) return;  // forking from simulator code (not done today)
  g_lock.lock();
  t_forking = true;
}
void after_fork() {
  if (!t_forking) return;
  t_forking = false;
  g_lock.unlock();
}

// Whether the per-user default configuration exists, looked up at most once
// a second: every open of every process in a test run asks, and most of
// them have no configuration at all.
std::atomic<std::int64_t> g_default_checked{-1};  // coarse monotonic second
std::atomic<bool> g_default_present{false};

bool default_config_present() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  if (now.tv_sec == g_default_checked.load(std::memory_order_relaxed)) {
    return g_default_present.load(std::memory_order_relaxed);
  }
  char path[PATH_MAX];
  struct stat st {};
  bool present = default_config_path(path, sizeof path) && stat(path, &st) == 0;
  g_default_present.store(present, std::memory_order_relaxed);
  g_default_checked.store(now.tv_sec, std::memory_order_relaxed);
  return present;
}
}  // namespace

bool simulator_configured() {
  const char *cfg = std::getenv("KXSIM_CONFIG");
  if (cfg) return *cfg != '\0';
  return default_config_present();
}

bool observation_wanted() {
  const char *log = std::getenv("KXSIM_LOG");
  const char *f = std::getenv("KXSIM_FAULTS");
  const char *ff = std::getenv("KXSIM_FAULTS_FILE");
  return (log && *log) || (f && *f) || (ff && *ff);
}

void trace(const char *fmt, ...) {
  const char *on = std::getenv("KXSIM_TRACE");
  if (!on || std::strcmp(on, "1") != 0) return;
  int saved = errno;
  char buf[1024];
  int n = std::snprintf(buf, sizeof buf, "kxsim[%d]: ", getpid());
  va_list ap;
  va_start(ap, fmt);
  int m = std::vsnprintf(buf + n, sizeof buf - static_cast<std::size_t>(n) - 1, fmt, ap);
  va_end(ap);
  std::size_t len = std::min(
      sizeof buf - 2, static_cast<std::size_t>(n) + static_cast<std::size_t>(std::max(m, 0)));
  buf[len++] = '\n';
  ssize_t w = write(2, buf, len);
  (void)w;
  errno = saved;
}

Simulator &Simulator::instance() {
  // Never destroyed: wrappers may run from other libraries' exit handlers.
  static Simulator *sim = [] {
    pthread_atfork(before_fork, after_fork, after_fork);
    return new Simulator();
  }();
  return *sim;
}

Simulator::Scope::Scope(const char *what) {
  if (t_inside) {
    trace("internal recursion in %s: passing through", what);
    return;
  }
  g_lock.lock();
  t_inside = true;
  entered_ = true;
}

Simulator::Scope::~Scope() {
  if (!entered_) return;
  t_inside = false;
  g_lock.unlock();
}

bool Simulator::refresh() {
  faults_.refresh();
  std::string path = active_config_path();
  struct stat st {};
  if (path.empty() || stat(path.c_str(), &st) != 0) {
    if (config_ok_ || config_path_ != path) {
      trace("cannot read %s: %s", path.c_str(), path.empty() ? "none in effect" : strerror(errno));
    }
    config_path_ = path;
    config_ok_ = false;
    config_.mounts.clear();
    config_size_ = -1;
    config_mtime_ = {};
    return false;
  }
  if (config_path_ == path && st.st_mtim.tv_sec == config_mtime_.tv_sec &&
      st.st_mtim.tv_nsec == config_mtime_.tv_nsec && st.st_ino == config_ino_ &&
      st.st_size == config_size_) {
    return config_ok_;
  }
  config_path_ = path;
  config_mtime_ = st.st_mtim;
  config_ino_ = st.st_ino;
  config_size_ = st.st_size;
  store_ = StateStore(state_dir_for(config_path_));
  std::string text, error;
  config_ok_ = sys::read_file(config_path_, text) && parse_config(text, config_, error);
  for (Mount &m : config_.mounts) {
    struct stat ms {};
    m.dev = stat(m.dir.c_str(), &ms) == 0 ? static_cast<std::uint64_t>(ms.st_dev) : 0;
  }
  if (!config_ok_) {
    config_.mounts.clear();
    std::string msg = "kxsim: " + config_path_ + ": unusable configuration " + error + "\n";
    ssize_t n = write(2, msg.data(), msg.size());
    (void)n;
  }
  return config_ok_;
}

int Simulator::finish(RequestInfo &info, int result, int err) {
  write_request_log(info, err ? -1 : result, err);
  if (const char *on = std::getenv("KXSIM_TRACE"); on && std::strcmp(on, "1") == 0) {
    std::string line = format_log_line(info, err ? -1 : result, err);
    line.pop_back();  // trace() ends the line itself
    trace("%s", line.c_str());
  }
  if (err) {
    errno = err;
    return -1;
  }
  return result;
}

void Simulator::add_control_fd(int fd) {
  struct stat st {};
  fstat(fd, &st);
  forget_fd(fd);
  control_fds_.push_back({fd, st.st_dev, st.st_ino});
  control_count_.store(static_cast<int>(control_fds_.size()), std::memory_order_relaxed);
}

bool Simulator::is_control_fd(int fd) {
  for (const ControlFd &c : control_fds_) {
    if (c.fd != fd) continue;
    // The number may have been closed behind our back (fclose, close_range)
    // and reused: it is ours only while it still names our device stand-in.
    struct stat st {};
    if (fstat(fd, &st) == 0 && st.st_dev == c.dev && st.st_ino == c.ino) return true;
    forget_fd(fd);
    return false;
  }
  return false;
}

void Simulator::forget_fd(int fd) {
  std::erase_if(control_fds_, [fd](const ControlFd &c) { return c.fd == fd; });
  control_count_.store(static_cast<int>(control_fds_.size()), std::memory_order_relaxed);
}

}  // namespace kxsim
