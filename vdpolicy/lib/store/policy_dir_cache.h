/* Where each managed file system keeps its policies, and whether they
 * changed since they were read.
 *
 * The directory cache has one entry per mounted kxfs file system, built from
 * the DMAPI mount cache (kxdmapi_paths.h) and rebuilt whenever it is empty
 * or the mount table changed. Each entry remembers the modification time of
 * its policy directory: when that time moves (a policy file created,
 * removed or renamed), the next lookup drops the file system's cached
 * policies. Rewriting a file in place does not move it.
 *
 * Locks: policy_dir_lock guards pol_dir_cnt and pol_dir_cache. The
 * functions here take it themselves, except *_locked ones.
 */
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "vdpolicy/lib/config/policy_config.h"

#ifdef __cplusplus
extern "C" {
#endif

#define POLICY_DIR_FORMAT "%s/.rep_private/config"

typedef struct pol_dir_cache_entry {
  char *pdc_dir;   /* "<mount>/.rep_private/config", owned */
  char *pdc_mount; /* owned */
  uint64_t pdc_fsid;
  uint64_t pdc_dir_time; /* directory mtime in ns as last seen; 0 after a rebuild */
} pol_dir_cache_entry_t;

extern pthread_mutex_t policy_dir_lock;
extern int pol_dir_cnt;
extern pol_dir_cache_entry_t *pol_dir_cache;

/* The policy file of `name` (or "key_<key>" without a name) on fsid:
 * *dir_out and *file_out get malloc'ed copies of the directory and the file
 * name, owned by the caller, who joins them with "/". When config has no
 * mount point yet, it gets the file system's. Returns 0, or -1 when fsid is
 * not a mounted kxfs file system (or out of memory). */
int construct_policy_path(dm_fsid_t fsid, const char *mount, uint64_t key, const char *name,
                          PolicyConfig_t *config, char **dir_out, char **file_out);

/* The default check-cache callout: rebuilds the directory cache when it is
 * empty or stale, and purges fsid's cached policies when its policy
 * directory changed. Called with policy_lock held. */
void _check_policy_cache(dm_fsid_t fsid);

/* Rebuilds the directory cache; returns its number of entries. */
int build_pol_dir_cache_locked(void);
int build_pol_dir_cache(void);

/* Empties the directory cache (see free_policy_caches). */
void free_pol_dir_cache_locked(void);

#ifdef __cplusplus
}
#endif
