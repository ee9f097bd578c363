// Locked queries of the mount cache for callers outside the library.
#include <errno.h>

#include <cstdlib>
#include <cstring>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_private.h"
#include "libutil/mutex.h"
#include "libutil/snprintf.h"
#include "libutil/unique_fd.h"

extern "C" int dm_fshandle_to_filesystem(const void *hanp, size_t hlen, char *fsname,
                                         char *mntpnt) {
  kx::MutexLock lock(&dm_mount_cache_lock);
  const mnt_cache_t *rec = dm_fshandle_to_mnt_cache_entry(hanp, hlen);
  if (rec == nullptr) {
    errno = ENOENT;
    KXDMAPI_TRACE("dm_fshandle_to_filesystem: errno/%d\n", errno);
    return -1;
  }
  // Mount points are at most DM_PATH_MAX by construction; names are cut.
  if (mntpnt != nullptr) KxSnprintf(mntpnt, DM_PATH_BUFSIZE, "%s", rec->mnt_dir);
  if (fsname != nullptr)
    KxSnprintf(fsname, DM_PATH_BUFSIZE, "%s", rec->mnt_fsname != nullptr ? rec->mnt_fsname : "");
  KXDMAPI_TRACE("dm_fshandle_to_filesystem: errno/%d\n", 0);
  return 0;
}

extern "C" int dm_fshandle_to_mountpoint(const void *hanp, size_t hlen, char *mntpnt) {
  return dm_fshandle_to_filesystem(hanp, hlen, nullptr, mntpnt);
}

extern "C" int dm_fs_rename_tracking_enabled(const void *hanp, size_t hlen) {
  int result = -1;
  {
    kx::MutexLock lock(&dm_mount_cache_lock);
    const mnt_cache_t *rec = dm_fshandle_to_mnt_cache_entry(hanp, hlen);
    if (rec == nullptr) {
      KXDMAPI_TRACE("dm_fs_rename_tracking_enabled: No FS entry for handle");
    } else if (rec->mnt_mcd.mcd_valid == 0) {
      KXDMAPI_TRACE("dm_fs_rename_tracking_enabled: Unset cache entry %s: (%s)",
                    rec->mnt_fsname != nullptr ? rec->mnt_fsname : "", rec->mnt_dir);
    } else {
      result = rec->mnt_mcd.mcd_rename_tracking;
    }
  }
  KXDMAPI_TRACE("dm_fs_rename_tracking_enabled: returning %d\n", result);
  return result;
}

namespace {

void free_report(dm_mnt_cache_t *report, size_t filled) {
  for (size_t i = 0; i < filled; ++i) std::free(report[i].cached_mnt);
  std::free(report);
}

}  // namespace

extern "C" dm_mnt_cache_t *dm_report_mnt_cache(int *countp) {
  if (countp == nullptr) {
    errno = EINVAL;
    return nullptr;
  }
  *countp = 0;
  kx::MutexLock lock(&dm_mount_cache_lock);
  if (dm_build_mnt_cache() < 0) {
    KXDMAPI_TRACE("dm_fshandle_to_mountpoint: failed cache build error\n");
    return nullptr;
  }
  size_t count = 0;
  for (const mnt_cache_t *rec = mount_cache; rec != nullptr; rec = rec->mnt_next) ++count;
  // At least one element, so that an empty report is still a block to free.
  auto *report =
      static_cast<dm_mnt_cache_t *>(std::calloc(count != 0 ? count : 1, sizeof(dm_mnt_cache_t)));
  if (report == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  size_t filled = 0;
  for (const mnt_cache_t *rec = mount_cache; rec != nullptr; rec = rec->mnt_next, ++filled) {
    report[filled].cached_fsid = rec->mnt_fsid;
    report[filled].cached_mnt = strdup(rec->mnt_dir);
    if (report[filled].cached_mnt == nullptr) {
      free_report(report, filled);
      errno = ENOMEM;
      return nullptr;
    }
  }
  *countp = static_cast<int>(filled);
  return report;
}
