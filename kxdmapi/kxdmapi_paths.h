/* Path resolution and the mounted kxfs file systems.
 *
 * Path to handle is one driver request. Handle to path, the special path of
 * a handle and the file-system queries use the process-wide mount cache (one
 * record per mounted "kxfs" file system, rebuilt when the driver reports that
 * the mount table changed). All functions are thread-safe; they take
 * dm_mount_cache_lock themselves where they need the cache.
 *
 * Buffers: mount-point and file-system-name buffers must hold
 * DM_PATH_BUFSIZE bytes (a mount point has at most DM_PATH_MAX characters;
 * names are cut to fit).
 * Returned handles and report arrays are malloc'ed and owned by the caller.
 * Results: 0 for success, -1 with errno for failure, unless stated.
 */
#pragma once

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Flags of dm_path_to_handle_flags, passed to the driver as they are. */
#define DM_PATH_FLAGS_CLIENT 0    /* dm_path_to_handle_client */
#define DM_PATH_FLAGS_DEFAULT 1   /* dm_path_to_handle */
#define DM_PATH_FLAGS_CLIENT_NF 2 /* dm_path_to_handle_client_nf */

/* New handle of the object at path: EINVAL for a null path, ENOENT for an
 * empty one, ENAMETOOLONG beyond DM_PATH_MAX bytes, else the driver's errno;
 * ENOMEM. */
int dm_path_to_handle_flags(const char *path, uint32_t flags, void **hanpp, size_t *hlenp);
int dm_path_to_handle(const char *path, void **hanpp, size_t *hlenp);
int dm_path_to_handle_client(const char *path, void **hanpp, size_t *hlenp);
int dm_path_to_handle_client_nf(const char *path, void **hanpp, size_t *hlenp);
/* New 8-byte file-system handle of the file system holding path. */
int dm_path_to_fshandle(const char *path, void **hanpp, size_t *hlenp);

/* Path of the target handle: the mount point joined with the target's path
 * relative to dirhanp (or to the file-system root when dirhanp is null),
 * all DM_PATH_MAX bytes of it when the file system's reply fills its field.
 * *rlenp is always set to the bytes needed including the NUL; ERANGE when
 * that exceeds buflen (nothing written), EINVAL, EBADF, ENOENT (file system
 * not mounted), or the driver's errno. */
int dm_handle_to_path(const void *dirhanp, size_t dirhlen, const void *targhanp, size_t targhlen,
                      size_t buflen, char *pathbufp, size_t *rlenp);

/* The name prefix under which the driver opens an object by its handle:
 * "<mount point>/" KXDMAPI_HANDLE_PREFIX "<hex>". */
#define KXDMAPI_HANDLE_PREFIX "__KXFS_Handle."

/* Name under which the handle's object can be opened:
 * "<mount point>/__KXFS_Handle.<HEX>" (or without "<mount point>/" when
 * mntpnt is null), the mount point itself for the root (key 2). *keyp gets
 * handle bytes 16-23 read in host order. mntpnt (may be null) and path must
 * hold DM_PATH_BUFSIZE bytes. ENOENT when the file system is not mounted,
 * ENAMETOOLONG when the path would not fit, EBADF for a short handle. */
int dm_format_special_path(const void *hanp, size_t hlen, uint64_t *keyp, char *mntpnt, char *path);

/* File-system name (fsname, may be null) and mount point (mntpnt, may be
 * null) of a handle's file system; -1 when it is not mounted. */
int dm_fshandle_to_filesystem(const void *hanp, size_t hlen, char *fsname, char *mntpnt);
int dm_fshandle_to_mountpoint(const void *hanp, size_t hlen, char *mntpnt);

/* 1 when the handle's file system tracks renames, 0 when not, -1 when it
 * is not mounted or its data could not be read. */
int dm_fs_rename_tracking_enabled(const void *hanp, size_t hlen);

/* Report record: one mounted file system. */
typedef struct dm_mnt_cache_s {
  uint64_t cached_fsid;
  char *cached_mnt; /* malloc'ed; the caller frees it */
} dm_mnt_cache_t;

/* New array of *countp records, newest first; null (and *countp 0) on
 * failure. The caller frees each cached_mnt and the array. */
dm_mnt_cache_t *dm_report_mnt_cache(int *countp);

/* 1 when the mount table changed since the last build, 0 when not, -1 when
 * the change time cannot be read. Rebuilds nothing. */
int dm_check_mnt_cache_stale(void);

#ifdef __cplusplus
}
#endif
