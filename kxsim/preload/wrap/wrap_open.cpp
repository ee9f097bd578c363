// The open family: the control device, paths by handle
// ("<mount>/__KXFS_Handle.<HEX>") and, when a request log or fault rules are
// configured, every open inside a simulated mount. Anything else goes
// straight to the C library after two string checks.
#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdarg>

#include "kxsim/core/handle.h"
#include "kxsim/core/hex.h"
#include "kxsim/core/path_resolve.h"
#include "kxsim/core/sysio.h"
#include "kxsim/preload/driver/driver.h"
#include "kxsim/preload/libc_next.h"
#include "kxsim/preload/settings.h"

using namespace kxsim;

namespace {

int open_device(Simulator &sim, const char *path, int flags) {
  RequestInfo info;
  info.kind = Kind::kOpen;
  info.object = path;
  info.add("flags", hex_number(static_cast<std::uint32_t>(flags)));
  RequestInfo dev = info;
  dev.kind = Kind::kDevice;
  if (int e = sim.injected(dev)) return sim.finish(info, -1, e);
  // A real descriptor that we track: memfd inodes are unique, so a reused
  // number is recognised (Simulator::is_control_fd).
  int fd = memfd_create("kxfsctl", (flags & O_CLOEXEC) ? MFD_CLOEXEC : 0u);
  if (fd < 0) return sim.finish(info, -1, errno);
  sim.add_control_fd(fd);
  return sim.finish(info, fd, 0);
}

int open_special(Simulator &sim, const std::string &abs, int flags, mode_t mode) {
  RequestInfo info;
  info.kind = Kind::kOpen;
  info.object = abs;
  info.add("flags", hex_number(static_cast<std::uint32_t>(flags)));
  std::string_view base = base_name(abs);
  auto parent = canonical_path(abs.substr(0, abs.size() - base.size()), true);
  const Mount *m = parent ? sim.config().find_by_path(*parent) : nullptr;
  if (!m || *parent != m->dir) return -2;  // not directly under a mount point
  auto bytes = from_hex(base.substr(kSpecialPrefix.size()));
  auto h = bytes ? crack_handle(bytes->data(), bytes->size()) : std::nullopt;
  if (!h) return sim.finish(info, -1, EINVAL);
  std::string target;
  int e = resolve_file_handle(sim, *m, *h, target);
  info.alias = abs;
  if (e == 0) info.object = target;
  info.add("handle", to_hex(*bytes, true));
  std::uint64_t ran = sim.faults().commands_run();
  if (int f = sim.injected(info)) return sim.finish(info, -1, f);
  if (ran != sim.faults().commands_run()) e = resolve_file_handle(sim, *m, *h, target);
  if (e) return sim.finish(info, -1, e);
  // The object may lie deeper than one path can reach.
  int fd = -1;
  int err = 0;
  {
    const Simulator::Unlocked unlocked;
    const sys::AtPath at = sys::at_path(target);
    fd = next::openat(at.dirfd(), at.rest.c_str(), flags, mode);
    if (fd < 0) err = errno;
  }
  return sim.finish(info, fd, err);
}

template <typename Real>
int sim_open_slow(int dirfd, const char *path, int flags, mode_t mode, bool device, bool special,
                  Real real) {
  int saved = errno;
  Simulator::Scope scope("open");
  if (!scope.entered()) return real();
  Simulator &sim = Simulator::instance();
  sim.refresh();
  if (device) {
    int fd = open_device(sim, path, flags);
    if (fd >= 0) errno = saved;
    return fd;
  }
  std::string abs = absolute_path(dirfd, path);
  if (special && !abs.empty()) {
    int fd = open_special(sim, abs, flags, mode);
    if (fd != -2) {
      if (fd >= 0) errno = saved;
      return fd;
    }
  }
  const Mount *m = abs.empty() ? nullptr : sim.config().find_by_path(abs);
  errno = saved;
  if (!m) return real();
  RequestInfo info;
  info.kind = Kind::kOpen;
  info.object = abs;
  info.add("flags", hex_number(static_cast<std::uint32_t>(flags)));
  if (int e = sim.injected(info)) return sim.finish(info, -1, e);
  int fd = real();
  int err = fd < 0 ? errno : 0;
  fd = sim.finish(info, fd, err);
  if (fd >= 0) errno = saved;
  return fd;
}

template <typename Real>
int sim_open(int dirfd, const char *path, int flags, mode_t mode, Real real) {
  if (!path || !simulator_configured()) return real();
  bool device = is_control_device(path);
  bool special = is_special_name(path);
  if (!device && !special && !observation_wanted()) return real();
  if (special) wait_request_latency();  // an open by handle is a driver request
  return guarded([&] { return sim_open_slow(dirfd, path, flags, mode, device, special, real); });
}

mode_t take_mode(int flags, va_list ap) {
  if ((flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE) {
    return static_cast<mode_t>(va_arg(ap, int));
  }
  return 0;
}

}  // namespace

extern "C" {

int open(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  mode_t mode = take_mode(flags, ap);
  va_end(ap);
  return sim_open(AT_FDCWD, path, flags, mode, [&] { return next::open(path, flags, mode); });
}

int open64(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  mode_t mode = take_mode(flags, ap);
  va_end(ap);
  return sim_open(AT_FDCWD, path, flags, mode, [&] { return next::open64(path, flags, mode); });
}

int openat(int dirfd, const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  mode_t mode = take_mode(flags, ap);
  va_end(ap);
  return sim_open(dirfd, path, flags, mode, [&] { return next::openat(dirfd, path, flags, mode); });
}

int openat64(int dirfd, const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  mode_t mode = take_mode(flags, ap);
  va_end(ap);
  return sim_open(dirfd, path, flags, mode,
                  [&] { return next::openat64(dirfd, path, flags, mode); });
}

int __open_2(const char *path, int flags) {
  return sim_open(AT_FDCWD, path, flags, 0, [&] { return next::open_2(path, flags); });
}

int __open64_2(const char *path, int flags) {
  return sim_open(AT_FDCWD, path, flags, 0, [&] { return next::open64_2(path, flags); });
}

int __openat_2(int dirfd, const char *path, int flags) {
  return sim_open(dirfd, path, flags, 0, [&] { return next::openat_2(dirfd, path, flags); });
}

int __openat64_2(int dirfd, const char *path, int flags) {
  return sim_open(dirfd, path, flags, 0, [&] { return next::openat64_2(dirfd, path, flags); });
}

}  // extern "C"
