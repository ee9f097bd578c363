// Requests on the control device: the Dmig frame of request 0xc018e571 and
// the mount-table change time 0x8010E693.
#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/core/handle.h"
#include "kxsim/core/hex.h"
#include "kxsim/core/path_resolve.h"
#include "kxsim/core/sysio.h"
#include "kxsim/preload/driver/dmig_codes.h"
#include "kxsim/preload/driver/driver.h"

namespace kxsim {

namespace {
// Dmig frame (24 bytes, native order).
constexpr std::size_t kFunc = 0, kVersion = 4, kBufsize = 8, kBuf = 16;
// The driver looks a path up once, relative to the caller's working
// directory: so does this, and takes the object's canonical path and
// identity from what it found, so that a request costs the same at any
// depth. 0 or an errno.
int look_up_object(const char *raw, bool follow, std::string &path, Identity &id) {
  sys::Fd fd = look_up(AT_FDCWD, raw, follow);
  if (!fd.valid()) return errno;
  auto found = path_of(fd.get());
  if (!found) return errno;
  if (!identify_fd(fd.get(), id)) return errno;
  path = std::move(*found);
  return 0;
}

int dmig_dispatch(Simulator &sim, std::int32_t func, unsigned char *p, RequestInfo &info) {
  switch (func) {
    case 7:
      return op_path_to_handle(sim, p, info);
    case 9:
      return op_fs_get_eventlist(sim, p, info);
    case 10:
      return op_fs_set_eventlist(sim, p, info);
    case 40:
      return op_fs_update_eventlist(sim, p, info);
    default:
      break;
  }
  if (int e = sim.injected(info)) return e;
  switch (func) {
    case 17:
      store<std::uint32_t>(p, 4, 0);
      return 0;  // no dispositions
    case 18:
      store<std::uint64_t>(p, 16, 0);
      return 0;  // no events pending
    case 21:     // no event messages,
    case 22:     // nothing to respond to,
    case 39:
      return ENOSYS;  // no directory service
    default:
      return 0;  // initialise, sessions, dispositions, event files
  }
}

int dmig(Simulator &sim, unsigned char *frame) {
  RequestInfo info;
  info.kind = Kind::kDmig;
  auto func = load<std::int32_t>(frame, kFunc);
  auto size = load<std::uint32_t>(frame, kBufsize);
  info.code = static_cast<std::uint32_t>(func);
  info.add("len", std::to_string(size));
  RequestInfo stale = info;
  stale.kind = Kind::kStale;
  if (int e = sim.injected(stale)) return sim.finish(info, -1, e);
  if (load<std::int16_t>(frame, kVersion) != kDmigVersion) return sim.finish(info, -1, EINVAL);
  const DmigCode *code = nullptr;
  for (const auto &c : kCodes) {
    if (c.func == func) code = &c;
  }
  if (!code || code->size != size) return sim.finish(info, -1, EINVAL);
  // The frame carries the caller's address as a number, as the driver sees it.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  auto *p = reinterpret_cast<unsigned char *>(
      static_cast<std::uintptr_t>(load<std::uint64_t>(frame, kBuf)));
  if (!p) return sim.finish(info, -1, EFAULT);
  return sim.finish(info, 0, dmig_dispatch(sim, func, p, info));
}

int mount_change_time(Simulator &sim, unsigned char *out) {
  RequestInfo info;
  info.kind = Kind::kIoctl;
  info.code = req::kMountChangeTime;
  info.object = std::string(kControlDevice);
  RequestInfo stale = info;
  stale.kind = Kind::kStale;
  if (int e = sim.injected(stale)) return sim.finish(info, -1, e);
  if (int e = sim.injected(info)) return sim.finish(info, -1, e);
  if (!out) return sim.finish(info, -1, EFAULT);
  timespec t = sim.config_mtime();
  store<std::uint64_t>(out, 0, static_cast<std::uint64_t>(t.tv_sec));
  store<std::uint64_t>(out, 8, static_cast<std::uint64_t>(t.tv_nsec / 1000));
  return sim.finish(info, 0, 0);
}
}  // namespace

int control_ioctl(Simulator &sim, int fd, unsigned long request, void *arg) {
  (void)fd;
  sim.refresh();
  auto *p = static_cast<unsigned char *>(arg);
  if (request == req::kMountChangeTime) return mount_change_time(sim, p);
  if (request != req::kDmig) {
    errno = ENOTTY;
    return -1;
  }
  if (!p) {
    errno = EFAULT;
    return -1;
  }
  return dmig(sim, p);
}

int op_path_to_handle(Simulator &sim, unsigned char *p, RequestInfo &info) {
  auto flags = load<std::uint32_t>(p, kP2hFlags);
  auto len = load<std::uint32_t>(p, kP2hLen);
  info.add("flags", std::to_string(flags));
  if (len > kP2hPathMax) return ENAMETOOLONG;
  const char *raw = reinterpret_cast<const char *>(p + kP2hPath);
  if (strnlen(raw, len + 1) != len) return EINVAL;  // length and NUL disagree
  info.object = len ? raw : "-";
  info.alias = info.object;
  if (len != 0 && flags > 2) return EINVAL;
  std::string path;
  Identity id;
  int err = ENOENT;
  if (len != 0) {
    const Simulator::Unlocked unlocked;
    err = look_up_object(raw, flags != 2, path, id);
  }
  if (err == 0) info.object = path;
  std::uint64_t ran = sim.faults().commands_run();
  if (int e = sim.injected(info)) return e;
  if (len == 0) return ENOENT;
  if (ran != sim.faults().commands_run()) {
    const Simulator::Unlocked unlocked;
    err = look_up_object(raw, flags != 2, path, id);
  }
  if (err) return err;
  const Mount *m = sim.config().find_by_path(path);
  if (!m) return EINVAL;                      // not a kxfs file system
  if (!on_device(id, m->dev)) return EINVAL;  // another file system mounted inside
  std::memset(p, 0, 64);
  make_file_handle(p, m->fsid, id.ino, id.generation);
  sim.index().note(*m, id.ino, relative_to(path, m->dir));
  info.add("handle", to_hex(p, kFileHandleLen));
  return 0;
}

}  // namespace kxsim
