/* The mount cache: library-internal records, locks and requests.
 *
 * Everything here is guarded by dm_mount_cache_lock: dm_build_mnt_cache and
 * dm_fshandle_to_mnt_cache_entry expect their caller to hold it, and a record
 * pointer is valid only while the lock is held (a rebuild replaces every
 * record). The lock is never taken together with the open-file cache's.
 */
#pragma once

#include <pthread.h>

#include "kxdmapi/kxdmapi_paths.h"
#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct dm_mnt_change_time {
  uint64_t mct_sec;
  uint64_t mct_usec;
} dm_mnt_change_time_t;

typedef struct mount_cache_data {
  int32_t mcd_valid;           /* 1 once the data has been read */
  int32_t mcd_rename_tracking; /* 0 or 1 */
} mount_cache_data_t;

typedef struct mnt_cache {
  char *mnt_dir;    /* owned; mount point */
  char *mnt_fsname; /* owned, may be null; mount source */
  uint64_t mnt_fsid;
  struct mnt_cache *mnt_next;      /* build order, newest first */
  struct mnt_cache *mnt_htab_next; /* same bucket */
  mount_cache_data_t mnt_mcd;
} mnt_cache_t;

extern pthread_mutex_t dm_mount_cache_lock;
extern mnt_cache_t *mount_cache;      /* null before the first build */
extern mnt_cache_t **mount_cache_tab; /* bucket heads */
extern uint32_t mount_cache_tab_size; /* power of two, 0 without array */
extern dm_mnt_change_time_t saved_change_time;

/* Change time from the session's descriptor, else "/dev/kxfsctl" opened for
 * this request; -1 when neither works. */
int get_last_mount_change_time(dm_mnt_change_time_t *timep);

/* Caller holds the lock. 0: cache hot; 1: rebuilt; -1: failure (including a
 * last "kxfs" entry that could not be resolved; other records are kept). */
int dm_build_mnt_cache(void);

/* Caller holds the lock. The record of the handle's file system (building
 * or rebuilding the cache as needed), or null. */
mnt_cache_t *dm_fshandle_to_mnt_cache_entry(const void *hanp, size_t hlen);

/* Bucket array size for nrecords records: 4 x the largest power of two not
 * above nrecords, at least 32. */
uint32_t dm_mnt_cache_tab_size_for(size_t nrecords);
/* Bucket of fsid in an array of size buckets (a power of two). */
uint32_t dm_mnt_cache_bucket(uint64_t fsid, uint32_t size);

#ifdef __cplusplus
}
#endif
