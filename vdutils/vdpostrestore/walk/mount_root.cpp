#include "walk/mount_root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

constexpr bool mount_root_attribute(const struct statx &stx) {
  return (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 &&
         (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

}  // namespace

bool is_mount_root(int dir_fd) {
  struct statx stx;
  return statx(dir_fd, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_TYPE, &stx) == 0 &&
         mount_root_attribute(stx);
}

// One statx instead of an lstat: the same request, with the mount-root
// attribute in its answer.
bool stat_entry(int dir_fd, const char *name, struct stat &st, bool &mount_root) {
  struct statx stx;
  if (statx(dir_fd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_BASIC_STATS, &stx) != 0) {
    return false;
  }
  st = {};
  st.st_dev = makedev(stx.stx_dev_major, stx.stx_dev_minor);
  st.st_ino = stx.stx_ino;
  st.st_mode = stx.stx_mode;
  st.st_nlink = stx.stx_nlink;
  st.st_uid = stx.stx_uid;
  st.st_gid = stx.stx_gid;
  st.st_rdev = makedev(stx.stx_rdev_major, stx.stx_rdev_minor);
  st.st_size = static_cast<off_t>(stx.stx_size);
  st.st_blksize = static_cast<blksize_t>(stx.stx_blksize);
  st.st_blocks = static_cast<blkcnt_t>(stx.stx_blocks);
  mount_root = mount_root_attribute(stx);
  return true;
}
