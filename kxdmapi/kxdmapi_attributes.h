/* Data-management attributes and DMAPI file attributes.
 *
 * Each call has a descriptor form (`..._fd`), one ioctl on an open file of the
 * file system, and a handle form that opens the file by handle through the
 * open-file cache (kxdmapi_fdcache.h), calls the descriptor form and closes it
 * again, keeping the descriptor form's errno across the close.
 *
 * Results: 0 on success, -1 with errno set. A missing attribute fails with the
 * file system's ENODATA or ENOENT. Callers without a session or token pass
 * session 0 and token -1.
 *
 * Ownership: every buffer is the caller's; nothing is allocated.
 * Threads: the calls keep no state of their own and may be used from several
 * threads; a held object's descriptor is shared through the open-file cache.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DM_ATTR_VALUE_MAX 128 /* the largest attribute value, in bytes */

/* A file's attributes as the file system returns them (168 bytes). */
typedef struct dm_stat {
  int32_t _link;
  uint32_t dt_pad1;
  dm_vardata_t dt_handle;
  dm_vardata_t dt_attr;
  dm_vardata_t dt_compname;
  int32_t dt_nevents;
  dm_eventset_t dt_emask; /* events enabled on the file */
  uint64_t dt_dev;
  uint64_t dt_ino;
  uint32_t dt_gen;
  uint64_t dt_mode;
  uint64_t dt_nlink;
  uint64_t dt_uid;
  uint64_t dt_gid;
  uint64_t dt_rdev;
  int64_t dt_size;
  uint64_t dt_atime;
  uint64_t dt_mtime;
  uint64_t dt_ctime;
  uint32_t dt_blksize;
  uint32_t dt_flags;
  uint64_t dt_affinity;
  dm_size_t dt_blocks;
} dm_stat_t;
typedef struct dm_stat dm_stat;

/* Attributes to update with dm_update_fileattr_fd / dm_set_fileattr (64 bytes). */
typedef struct dm_fileattr_v2 {
  uint64_t fa_mode;
  uint64_t fa_uid;
  uint64_t fa_gid;
  uint64_t fa_atime;
  uint64_t fa_mtime;
  uint64_t fa_ctime;
  dm_off_t fa_size;
  uint8_t fa_attr_flags;
  uint8_t fa_attr_flags_mask;
  uint8_t fs_pad[6];
} dm_fileattr_v2_t;
typedef struct dm_fileattr_v2 dm_fileattr_v2;

#ifdef __cplusplus
/* The file system returns these bytes as they are. */
static_assert(sizeof(dm_stat_t) == 168, "dm_stat is 168 bytes");
static_assert(offsetof(dm_stat_t, dt_emask) == 40, "dt_emask at 40");
static_assert(offsetof(dm_stat_t, dt_size) == 112, "dt_size at 112");
static_assert(offsetof(dm_stat_t, dt_blocks) == 160, "dt_blocks at 160");
static_assert(sizeof(dm_fileattr_v2_t) == 64, "dm_fileattr_v2 is 64 bytes");
#endif

/* Reads attribute *attrnamep into bufp. *rlenp is set to the value's length;
 * when buflen is smaller the call fails with E2BIG and copies nothing. A
 * length beyond DM_ATTR_VALUE_MAX from the file system fails with EIO and
 * leaves *rlenp 0. */
int dm_get_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                     size_t buflen, void *bufp, size_t *rlenp);
/* Sets attribute *attrnamep to buflen bytes (at most 128) of bufp. */
int dm_set_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                     int setdtime, size_t buflen, const void *bufp);
int dm_remove_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, int setdtime,
                        const dm_attrname_t *attrnamep);
/* Fills *statp with the file's dm_stat; mask is passed to the file system. */
int dm_get_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                       dm_stat_t *statp);
int dm_update_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                          const dm_fileattr_v2_t *attrp);

/* Handle forms: an invalid handle, or one that is not a file handle, fails
 * with EBADF before anything is opened; dm_get_fileattr alone takes any
 * handle that dm_open_by_handle can open (EBADF from the open otherwise). */
int dm_get_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                  const dm_attrname_t *attrnamep, size_t buflen, void *bufp, size_t *rlenp);
int dm_set_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                  const dm_attrname_t *attrnamep, int setdtime, size_t buflen, const void *bufp);
int dm_remove_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, int setdtime,
                     const dm_attrname_t *attrnamep);
int dm_get_fileattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, uint64_t mask,
                    dm_stat_t *statp);
int dm_set_fileattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, uint64_t mask,
                    const dm_fileattr_v2_t *attrp);

#ifdef __cplusplus
}
#endif
