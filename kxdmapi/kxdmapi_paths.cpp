// Path names to handles and back, and the special path of a handle.
#include "kxdmapi/kxdmapi_paths.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_init.h"
#include "kxdmapi/kxdmapi_private.h"
#include "kxdmapi/kxdmapi_wire.h"
#include "libutil/snprintf.h"
#include "libutil/unique_fd.h"

namespace {

namespace p2h = kxdmapi::p2h;
using kxdmapi::put_native;

// Path-to-handle request; the path is at most DM_PATH_MAX bytes.
int send_path_request(const char *path, size_t len, uint32_t flags, unsigned char *payload) {
  put_native<uint32_t>(payload, p2h::kFlags, flags);
  put_native<uint32_t>(payload, p2h::kPathLen, static_cast<uint32_t>(len));
  std::memcpy(payload + p2h::kPath, path, len);
  return kxdmapi_call_driver(DMIG_PATH_TO_HANDLE, payload, KXDMAPI_PATH_TO_HANDLE_LEN);
}

struct FreeHandle {
  void operator()(void *hanp) const { std::free(hanp); }
};
using HandlePtr = std::unique_ptr<void, FreeHandle>;

// Handle-to-path reply buffer.
namespace h2p {
constexpr size_t kDirHandle = 0;
constexpr size_t kDirLen = 64;
constexpr size_t kTargHandle = 72;
constexpr size_t kTargLen = 136;
constexpr size_t kPath = 144;
// A path as long as the field fills it and has no terminator.
constexpr size_t kPathMax = KXDMAPI_HANDLE_TO_PATH_LEN - kPath;
static_assert(kPathMax == DM_PATH_MAX);
}  // namespace h2p

// Handles whose bytes can be copied: valid and not the global marker.
bool has_bytes(const void *hanp, size_t hlen) {
  return hanp != DM_GLOBAL_HANP && dm_handle_is_valid(hanp, hlen);
}

int handle_to_path_fail(int err, int line) {
  if (err == EINVAL) KXDMAPI_TRACE("dm_handle_to_path: EINVAL @ line # %d\n", line);
  if (err == EBADF) KXDMAPI_TRACE("dm_handle_to_path: EBADF @ line # %d\n", line);
  if (err == ENOENT) KXDMAPI_TRACE("dm_handle_to_path: ENOENT @ line # %d\n", line);
  errno = err;
  return -1;
}

// Asks the file system, on a descriptor of the mount point, for the target's
// path relative to the directory.
int query_relative_path(int mntfd, const void *dirhanp, size_t dirhlen, const void *targhanp,
                        size_t targhlen, unsigned char *reply) {
  std::memcpy(reply + h2p::kDirHandle, dirhanp, dirhlen);
  put_native<uint64_t>(reply, h2p::kDirLen, dirhlen);
  std::memcpy(reply + h2p::kTargHandle, targhanp, targhlen);
  put_native<uint64_t>(reply, h2p::kTargLen, targhlen);
  if (kxdmapi::request_result(ioctl(mntfd, KXDMAPI_IOC_HANDLE_TO_PATH, reply)) != 0) {
    KXDMAPI_TRACE("dm_handle_to_path: could not fcntl, errno/%d\n", errno);
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" int dm_path_to_handle_flags(const char *path, uint32_t flags, void **hanpp,
                                       size_t *hlenp) {
  if (path == nullptr) {
    KXDMAPI_TRACE("dm_path_to_handle_flags: NULL path\n");
    errno = EINVAL;
    return -1;
  }
  KXDMAPI_TRACE("dm_path_to_handle_flags path %s\n", path);
  size_t len = dm_strnlen(path, DM_PATH_MAX + 1);
  if (len == 0) {
    KXDMAPI_TRACE("dm_path_to_handle_flags: empty path\n");
    errno = ENOENT;
    return -1;
  }
  if (len > DM_PATH_MAX) {
    errno = ENAMETOOLONG;
    KXDMAPI_TRACE("dm_path_to_handle_flags: pathlen too big, errno %d.\n", errno);
    return -1;
  }
  if (hanpp == nullptr || hlenp == nullptr) {
    errno = EINVAL;
    return -1;
  }
  *hanpp = nullptr;
  unsigned char payload[KXDMAPI_PATH_TO_HANDLE_LEN] = {};
  if (send_path_request(path, len, flags, payload) != 0) {
    KXDMAPI_TRACE("dm_path_to_handle_flags: failed, errno %d.\n", errno);
    return -1;
  }
  size_t hlen = 0;
  if (!kxdmapi::reply_handle_fits(payload, DM_HANDLE_MAX, &hlen)) {
    KXDMAPI_TRACE("dm_path_to_handle_flags: failed, errno %d.\n", errno);
    return -1;
  }
  void *block = std::malloc(hlen);
  if (block == nullptr) {
    errno = ENOMEM;
    KXDMAPI_TRACE("dm_path_to_handle_flags: no memory, errno %d.\n", errno);
    return -1;
  }
  std::memcpy(block, payload, hlen);
  *hanpp = block;
  *hlenp = hlen;
  KXDMAPI_TRACE("dm_path_to_handle_flags: success\n");
  return 0;
}

extern "C" int dm_path_to_handle(const char *path, void **hanpp, size_t *hlenp) {
  return dm_path_to_handle_flags(path, DM_PATH_FLAGS_DEFAULT, hanpp, hlenp);
}

extern "C" int dm_path_to_handle_client(const char *path, void **hanpp, size_t *hlenp) {
  return dm_path_to_handle_flags(path, DM_PATH_FLAGS_CLIENT, hanpp, hlenp);
}

extern "C" int dm_path_to_handle_client_nf(const char *path, void **hanpp, size_t *hlenp) {
  return dm_path_to_handle_flags(path, DM_PATH_FLAGS_CLIENT_NF, hanpp, hlenp);
}

extern "C" int dm_path_to_fshandle(const char *path, void **hanpp, size_t *hlenp) {
  if (path == nullptr || hanpp == nullptr || hlenp == nullptr) {
    errno = EINVAL;
    return -1;
  }
  size_t len = dm_strnlen(path, DM_PATH_MAX + 1);
  if (len > DM_PATH_MAX) {
    errno = ENAMETOOLONG;
    KXDMAPI_TRACE("dm_path_to_fshandle: pathlen too big, errno %d.\n", errno);
    return -1;
  }
  *hanpp = nullptr;
  // An empty path is the driver's to judge.
  unsigned char payload[KXDMAPI_PATH_TO_HANDLE_LEN] = {};
  if (send_path_request(path, len, DM_PATH_FLAGS_CLIENT, payload) != 0) {
    KXDMAPI_TRACE("dm_path_to_fshandle: failed, errno %d.\n", errno);
    return -1;
  }
  // The fsid is the reply's first 8 bytes: the handle is copied, not made,
  // so the trace holds this call's lines only.
  void *block = std::malloc(DM_FSHANDLE_LEN);
  if (block == nullptr) {
    errno = ENOMEM;
    KXDMAPI_TRACE("dm_path_to_fshandle: no memory, errno %d.\n", errno);
    return -1;
  }
  std::memcpy(block, payload, DM_FSHANDLE_LEN);
  *hanpp = block;
  *hlenp = DM_FSHANDLE_LEN;
  KXDMAPI_TRACE("dm_path_to_fshandle: success\n");
  return 0;
}

extern "C" int dm_handle_to_path(const void *dirhanp, size_t dirhlen, const void *targhanp,
                                 size_t targhlen, size_t buflen, char *pathbufp, size_t *rlenp) {
  if (buflen == 0) return handle_to_path_fail(EINVAL, 2045);
  if (pathbufp == nullptr || rlenp == nullptr) return handle_to_path_fail(EINVAL, 2055);
  if (dirhanp != nullptr && !has_bytes(dirhanp, dirhlen)) return handle_to_path_fail(EBADF, 2068);
  if (!has_bytes(targhanp, targhlen)) return handle_to_path_fail(EBADF, 2078);
  char mntpnt[DM_PATH_BUFSIZE];
  if (dm_fshandle_to_mountpoint(targhanp, targhlen, mntpnt) != 0)
    return handle_to_path_fail(ENOENT, 2092);

  kx::UniqueFd mntfd(open(mntpnt, O_RDONLY | O_CLOEXEC));
  if (!mntfd.valid()) {
    KXDMAPI_TRACE("dm_handle_to_path: open mntpath<%s>\n", mntpnt);
    KXDMAPI_TRACE("dm_handle_to_path: failed,  errno/%d\n", errno);
    return -1;
  }

  // Without a directory, paths are relative to the file system's root.
  HandlePtr root;
  if (dirhanp == nullptr) {
    dm_fsid_t fsid = 0;
    if (dm_handle_to_fsid(targhanp, targhlen, &fsid) != 0) {
      KXDMAPI_TRACE("dm_handle_to_path: dm_handle_to_fsid failed @ line # %d\n", 2122);
      errno = EBADF;
      return -1;
    }
    const dm_ino_t ino = 0;
    const dm_igen_t igen = 0;
    void *made = nullptr;
    if (dm_make_handle(&fsid, &ino, &igen, &made, &dirhlen) != 0) {
      KXDMAPI_TRACE("dm_handle_to_path: dm_make_handle failed @ line # %d\n", 2131);
      return -1;
    }
    root.reset(made);
    dirhanp = made;
  }

  unsigned char reply[KXDMAPI_HANDLE_TO_PATH_LEN] = {};
  const int rc = query_relative_path(mntfd.get(), dirhanp, dirhlen, targhanp, targhlen, reply);
  mntfd.reset();
  if (rc != 0) return -1;
  const char *relative = reinterpret_cast<const char *>(reply + h2p::kPath);
  size_t mntlen = std::strlen(mntpnt);
  // All of a path that fills the field: cutting it would name another file.
  size_t rellen = dm_strnlen(relative, h2p::kPathMax);
  const int relprec = static_cast<int>(rellen);
  // The separator is counted even when the relative path brings its own.
  *rlenp = rellen != 0 ? mntlen + rellen + 2 : mntlen + 1;
  if (*rlenp > buflen) {
    errno = ERANGE;
    KXDMAPI_TRACE("dm_handle_to_path: buffer too small, errno/%d\n", errno);
    return -1;
  }
  if (rellen == 0)
    KxSnprintf(pathbufp, buflen, "%s", mntpnt);
  else if (relative[0] == '/')
    KxSnprintf(pathbufp, buflen, "%s%.*s", mntpnt, relprec, relative);
  else
    KxSnprintf(pathbufp, buflen, "%s/%.*s", mntpnt, relprec, relative);
  KXDMAPI_TRACE("dm_handle_to_path: success\n");
  return 0;
}

extern "C" int dm_format_special_path(const void *hanp, size_t hlen, uint64_t *keyp, char *mntpnt,
                                      char *path) {
  if (!has_bytes(hanp, hlen) || path == nullptr) {
    errno = EBADF;
    return -1;
  }
  if (mntpnt != nullptr && dm_fshandle_to_mountpoint(hanp, hlen, mntpnt) != 0) {
    errno = ENOENT;
    KXDMAPI_TRACE("dm_format_special_path: couldn't find mount point, errno/%d\n", errno);
    return -1;
  }
  // The key is the inode field's raw bytes in host order; bytes beyond a
  // short handle read as zero.
  unsigned char h[DM_HANDLE_MAX] = {};
  std::memcpy(h, hanp, hlen);
  uint64_t key = kxdmapi::get_native<uint64_t>(h, 16);
  if (keyp != nullptr) *keyp = key;
  if (key == KXDMAPI_ROOT_KEY && mntpnt != nullptr) {
    KxSnprintf(path, DM_PATH_BUFSIZE, "%s", mntpnt);
    KXDMAPI_TRACE("dm_format_special_path: setting mnt_pnt %s\n", path);
    return 0;
  }
  char hex[2 * DM_HANDLE_MAX + 1];
  dm_binary_to_hex(hanp, hlen, hex);
  int len = mntpnt != nullptr
                ? KxSnprintf(path, DM_PATH_BUFSIZE, "%s/%s%s", mntpnt, KXDMAPI_HANDLE_PREFIX, hex)
                : KxSnprintf(path, DM_PATH_BUFSIZE, "%s%s", KXDMAPI_HANDLE_PREFIX, hex);
  if (len < 0 || static_cast<size_t>(len) > DM_PATH_MAX) {
    path[0] = '\0';
    errno = ENAMETOOLONG;
    return -1;
  }
  KXDMAPI_TRACE("dm_format_special_path: formatted special path %s\n", path);
  return 0;
}
