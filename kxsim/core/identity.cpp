#include "kxsim/core/identity.h"

#include <fcntl.h>
#include <sys/sysmacros.h>

#include <cstdio>

#include "kxsim/core/sysio.h"

namespace kxsim {

namespace {
constexpr unsigned kMask = STATX_BASIC_STATS | STATX_BTIME;

void fill(Identity &out) {
  out.ino = out.stx.stx_ino;
  if (out.stx.stx_mask & STATX_BTIME) {
    auto sec = static_cast<std::uint64_t>(out.stx.stx_btime.tv_sec);
    std::uint64_t v = sec * 1000000000ULL + out.stx.stx_btime.tv_nsec;
    out.generation = static_cast<std::uint32_t>(v ^ (v >> 32));
    char buf[48];
    (void)std::snprintf(buf, sizeof buf, "%llu.%09u", static_cast<unsigned long long>(sec),
                        out.stx.stx_btime.tv_nsec);
    out.born = buf;
  } else {
    out.generation = 0;
    out.born = "-";
  }
}
}  // namespace

bool identify_path(const std::string &path, Identity &out) {
  const sys::AtPath at = sys::at_path(path);
  if (statx(at.dirfd(), at.rest.c_str(), AT_SYMLINK_NOFOLLOW, kMask, &out.stx) != 0) return false;
  fill(out);
  return true;
}

bool identify_fd(int fd, Identity &out) {
  if (statx(fd, "", AT_EMPTY_PATH, kMask, &out.stx) != 0) return false;
  fill(out);
  return true;
}

bool on_device(const Identity &id, std::uint64_t dev) {
  return dev == 0 || makedev(id.stx.stx_dev_major, id.stx.stx_dev_minor) == dev;
}

}  // namespace kxsim
