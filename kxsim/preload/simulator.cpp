#include "kxsim/preload/simulator.h"

#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "kxsim/core/sysio.h"
#include "kxsim/preload/request_log.h"

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

// Installed by the first Scope, before the lock is ever taken: the settings
// take it too, possibly before any request made the Simulator.
void install_fork_handlers() {
  static const bool installed = pthread_atfork(before_fork, after_fork, after_fork) == 0;
  (void)installed;
}
}  // namespace

void trace(const char *fmt, ...) {
  if (!tracing()) return;
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

namespace {
std::atomic<Simulator *> g_instance{nullptr};
}  // namespace

Simulator &Simulator::instance() {
  // Never destroyed: wrappers may run from other libraries' exit handlers.
  static Simulator *sim = [] {
    auto *made = new Simulator();
    g_instance.store(made, std::memory_order_release);
    return made;
  }();
  return *sim;
}

Simulator *Simulator::existing() {
  return g_instance.load(std::memory_order_acquire);
}

bool Simulator::inside() {
  return t_inside;
}

Simulator::Scope::Scope(const char *what) {
  install_fork_handlers();
  if (t_inside) {
    trace("internal recursion in %s: passing through", what);
    return;
  }
  g_lock.lock();
  t_inside = true;
  entered_ = true;
}

Simulator::Unlocked::Unlocked() {
  if (!t_inside) return;
  t_inside = false;
  g_lock.unlock();
  released_ = true;
}

Simulator::Unlocked::~Unlocked() {
  if (!released_) return;
  g_lock.lock();
  t_inside = true;
}

Simulator::Scope::~Scope() {
  if (!entered_) return;
  t_inside = false;
  g_lock.unlock();
}

bool Simulator::refresh() {
  if (std::uint64_t v = settings_version(); v != settings_version_) {
    settings_ = current_settings();
    settings_version_ = v;
  }
  faults_.refresh(settings_.faults, settings_.faults_file);
  const std::string &path = settings_.config;
  struct stat st {};
  bool present = !path.empty() && stat(path.c_str(), &st) == 0;
  int err = errno;
  if (settings_.config_is_default) note_default_config(present);
  if (!present) {
    if (config_ok_ || config_path_ != path) {
      trace("cannot read %s: %s", path.c_str(), path.empty() ? "none in effect" : strerror(err));
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
  write_request_log(settings_.log, info, err ? -1 : result, err);
  if (settings_.trace) {
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
