// unlink and unlinkat inside simulated mounts: fault rules, the request log,
// and dropping the driver's state of a file whose last link goes (so that a
// later file reusing the inode number starts clean even on file systems
// without birth times).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "kxsim/core/path_resolve.h"
#include "kxsim/preload/driver/driver.h"
#include "kxsim/preload/libc_next.h"

using namespace kxsim;

namespace {

template <typename Real>
int sim_unlink_slow(int dirfd, const char *path, Real real) {
  int saved = errno;
  Simulator::Scope scope("unlink");
  if (!scope.entered()) return real();
  Simulator &sim = Simulator::instance();
  sim.refresh();
  std::string abs = absolute_path(dirfd, path);
  const Mount *m = abs.empty() ? nullptr : sim.config().find_by_path(abs);
  errno = saved;
  if (!m) return real();
  RequestInfo info;
  info.kind = Kind::kUnlink;
  info.object = abs;
  Identity id;
  bool known = identify_path(abs, id);
  std::uint64_t ran = sim.faults().commands_run();
  if (int e = sim.injected(info)) return sim.finish(info, -1, e);
  if (ran != sim.faults().commands_run()) known = identify_path(abs, id);
  errno = saved;
  int r = real();
  int err = r < 0 ? errno : 0;
  if (r == 0 && known && (S_ISDIR(id.stx.stx_mode) || id.stx.stx_nlink <= 1)) {
    sim.store().drop(m->fsid, id.ino);
    sim.index().forget(*m, id.ino);
  }
  r = sim.finish(info, r, err);
  if (r == 0) errno = saved;
  return r;
}

template <typename Real>
int sim_unlink(int dirfd, const char *path, Real real) {
  if (!path || !simulator_configured()) return real();
  return guarded([&] { return sim_unlink_slow(dirfd, path, real); });
}

}  // namespace

extern "C" {

int unlink(const char *path) noexcept {
  return sim_unlink(AT_FDCWD, path, [&] { return next::unlink(path); });
}

int unlinkat(int dirfd, const char *path, int flags) noexcept {
  return sim_unlink(dirfd, path, [&] { return next::unlinkat(dirfd, path, flags); });
}

}  // extern "C"
