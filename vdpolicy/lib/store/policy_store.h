/* The policy store: one text file per policy in each managed file system's
 * policy directory ("<mount>/.rep_private/config"), named by the policy's
 * name or "key_<key>", and a process-wide cache of parsed policies.
 *
 * Cache: policy_hash holds one cached Policy_t per policy (pol_ref 1, the
 * cache's own). Every successful lookup returns a new Policy_t of the
 * caller's (pol_ref 1) sharing the cached configuration and state, whose
 * polcfg_ref and polst_ref count the sharers. A cached policy is dropped
 * when its file system's policy directory changes (checked once per
 * lookup), when it is marked stale, or when it is unhashed; references held
 * by callers stay valid until released.
 *
 * Locks: policy_lock guards the hash and every reference count;
 * policy_dir_lock the directory cache (policy_dir_cache.h). When both are
 * needed policy_lock is taken first. Functions named *_locked, and
 * _lookup_policy, expect policy_lock held.
 *
 * A broken reference count panics through the assertion service.
 */
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "vdpolicy/lib/config/policy_config.h"
#include "vdpolicy/policy_cache.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct policy_state PolicyState_t;

/* A counted reference to a cached policy. */
typedef struct policy {
  PolicyConfig_t *pol_config;
  PolicyState_t *pol_state;
  int pol_ref;
} Policy_t;

/* Run-time state of a cached policy. The cache uses polst_ref, polst_stale
 * and polst_next; the rest belongs to the policy daemon and is only zeroed
 * here. */
struct policy_state {
  int polst_ref;
  uint8_t polst_stale; /* 1: re-read before next use */
  uint8_t polst_tsm_present;
  void *polst_tgt_state;
  void *polst_src_state;
  int polst_source_available;
  char *polst_cross_mount;
  uint32_t polst_last_data_gen;
  void *polst_hash;
  uint32_t polst_hash_ref;
  uint32_t polst_hash_dir;
  uint32_t polst_last_file_cnt;
  void *polst_dir_hash;
  Policy_t *polst_next; /* next cached policy in the same bucket */
  pthread_mutex_t polst_mutex;
  pthread_mutex_t polst_state_mutex;
  pthread_mutex_t polst_name_mutex;
  void *polst_stats;
  void *polst_ingest_work;
  void *polst_rep_tgt_work;
  void *polst_rep_src_work;
  void *polst_rep_tgt_sync;
  int polst_rep_tgt_sync_enable;
  int polst_rep_tgt_cancel;
};

#define POLICY_HASH_SIZE 37

extern pthread_mutex_t policy_lock;
extern Policy_t *policy_hash[POLICY_HASH_SIZE];

/* The compiled-in ends of every inheritance chain (configurations in
 * policy.h): never reference counted, never released. */
extern Policy_t Global_Policy;
extern Policy_t Config_Policy;
extern Policy_t Target_Policy;

/* Callouts for the policy daemon; null unless a program sets them, except
 * check_cache_callout, which starts as _check_policy_cache. Called with
 * policy_lock held. */
extern void (*check_cache_callout)(dm_fsid_t fsid);
extern void (*init_policy_callout)(Policy_t *policy);
extern void (*deactivate_policy_callout)(Policy_t *policy);
extern void (*free_policy_state_callout)(PolicyState_t *state);

/* The effective policy `name` (or, without a name, `key`) of file system
 * fsid, parsed and inherited, or null (a reason is logged at level 3).
 * mount is passed to the parser only. Release with release_policy. */
Policy_t *lookup_policy(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key);
void release_policy(Policy_t *policy);

/* The recursive worker. chain holds the names of the policies being loaded
 * (VDP_MAX_INHERIT_DEPTH + 1 entries), depth the current level; a reason
 * for a null result goes to errbuf. */
Policy_t *_lookup_policy(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                         int depth, const char **chain, char *errbuf, size_t errlen);

/* Zeroes policy's state and configuration and prepares both for a parse. */
void init_policy(Policy_t *policy);
/* Drops one reference; the last frees the Policy_t, and with it its share of
 * the configuration and the state. */
void release_policy_locked(Policy_t *policy);
/* Drops one reference on a configuration; the last frees it. */
void release_policy_config_locked(PolicyConfig_t *config);
/* Unlinks a cached policy from its bucket and drops the cache's reference. */
void unhash_policy(Policy_t *policy);

/* Drops every stale cached policy of fsid. */
void purge_stale_policies_locked(dm_fsid_t fsid);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
namespace vdpol {
// Sets polst_stale on every cached policy of fsid (policy_lock held).
void mark_fs_stale_locked(dm_fsid_t fsid) noexcept;
}  // namespace vdpol
#endif
