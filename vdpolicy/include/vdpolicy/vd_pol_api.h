/* The policy API: the effective policy of a directory's policy key, as a
 * self-contained summary record.
 *
 * Calling order: vdpol_open once per file system, then any number of
 * vdpol_load / vdp_free pairs, then vdpol_close.
 *
 * Ownership: the handle from vdpol_open belongs to the caller until
 * vdpol_close; each record from vdpol_load belongs to the caller until
 * vdp_free. Every string of a record is its own heap copy, except
 * vdp_cloud_regex, which points into the cached policy (policy_store.h) and
 * is valid only while that policy stays cached: vdp_free never frees it.
 *
 * Results: 0, or an error number (2 no such policy, 12 out of memory, 22
 * invalid argument, or what dm_path_to_handle_client returned) with one
 * message in errbuf (errlen bytes, truncated to fit; either may be null/0)
 * and one level-3 line through __kxfs_logfn. Output pointers are null after
 * a failure.
 *
 * Threads: every function is safe from several threads; a handle or a
 * record must not be freed while another thread uses it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "vdpolicy/policy_slots.h"
#include "vdpolicy/vdp_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t VdpDmFsId_t;
typedef uint64_t vdp_key_t;
typedef int32_t vdp_3state_t; /* 1, 0 or -1 */
typedef enum VdOpt_bool { VDOPT_FALSE = 0, VDOPT_TRUE = 1 } VdOpt_bool_t;

#define VDP_DIR_SIZE 512 /* VdpDir keeps at most 511 characters */

struct vdpol_hndl_s {
  char VdpDir[VDP_DIR_SIZE];
  void *VdpDmHndl; /* the directory's DMAPI handle, owned */
  size_t VdpDmHndlSz;
  VdpDmFsId_t VdpDmFsId; /* every load goes to this file system's policies */
};

/* One replication target, in the order the policy lists them. */
typedef struct vdp_target_s {
  char *vdp_raw_target;
  struct vdp_target_s *vdp_target_next;
} vdp_target_t;

/* The summary record. vdp_origin[slot] tells where each value came from
 * (the slots of policy_slots.h); unlisted slots stay VDP_ORIGIN_DEFAULT. */
typedef struct Vdp_s {
  vdp_pol_ver_t vdp_version; /* 0xACE10001; 0xDEAD0001 once freed */
  char *vdp_name;
  char *vdp_inherit;
  vdp_key_t vdp_key;
  char *vdp_root;
  uint64_t vdp_affinity;
  char *vdp_ingest_sched;
  VdOpt_bool_t vdp_dedup_onoff;
  VdOpt_bool_t vdp_dedup_filter_onoff;
  int64_t vdp_dedup_max_seg_sz;
  int32_t vdp_dedup_max_seg_age;
  uint32_t vdp_dedup_min_age;
  uint64_t vdp_dedup_min_size;
  uint64_t vdp_dedup_seg_size;
  uint64_t vdp_dedup_min_round;
  uint64_t vdp_dedup_max_round;
  char *vdp_dedup_regex;
  uint32_t vdp_dedup_pri;
  char *vdp_dedup_bfst;
  int64_t vdp_fencepost_gap;
  VdOpt_bool_t vdp_cloud_onoff;
  char *vdp_cloud_id;
  char *vdp_cloud_container;
  uint64_t vdp_cloud_min_size;
  uint64_t vdp_cloud_seg_size;
  uint32_t vdp_cloud_min_age;
  char *vdp_cloud_regex; /* borrowed from the cache, see above */
  uint32_t vdp_cloud_pri;
  VdOpt_bool_t vdp_trunc_onoff;
  uint32_t vdp_trunc_min_age;
  uint64_t vdp_trunc_min_size;
  uint32_t vdp_trunc_low_water;
  uint32_t vdp_trunc_high_water;
  uint64_t vdp_trunc_stub_size;
  char *vdp_trunc_regex;
  uint32_t vdp_trunc_pri;
  vdp_3state_t vdp_rep_input_ctrl; /* 1 on, 0 off (or unset), -1 disabled */
  VdOpt_bool_t vdp_rep_output_onoff;
  VdOpt_bool_t vdp_rep_subtree_onoff;
  VdOpt_bool_t vdp_rep_dedup_onoff;
  VdOpt_bool_t vdp_rep_compress_onoff;
  VdOpt_bool_t vdp_rep_encrypt_onoff;
  VdOpt_bool_t vdp_rep_report_onoff;
  vdp_target_t *vdp_rep_target_first;
  uint32_t vdp_rep_inline_size;
  uint32_t vdp_rep_copies;
  char *vdp_rep_realize; /* trailing slashes stripped */
  char *vdp_rep_callout;
  char *vdp_rep_name;
  char *vdp_rep_relation;
  char *vdp_rep_regex;
  char *vdp_rep_sched_str;
  uint32_t vdp_rep_pri;
  vdp_origin_t vdp_origin[VDP_NUM_SLOTS];
} Vdp_t;

/* Opens a handle on dir_path, any path inside a managed file system.
 * *handle gets the new handle, or null on failure. */
int vdpol_open(const char *dir_path, struct vdpol_hndl_s **handle, char *errbuf, size_t errlen);

/* Loads the effective policy of `key` on the handle's file system. Key 0
 * loads the policy called `name`, "global" when name is null; keys 1, 2 and
 * 3 are the policies "global", "config" and "target". *record gets a new
 * record, or null on failure. */
int vdpol_load(struct vdpol_hndl_s *handle, const char *name, vdp_key_t key, Vdp_t **record,
               char *errbuf, size_t errlen);

/* Frees *handle (null is accepted) and sets it to null. */
void vdpol_close(struct vdpol_hndl_s **handle);

/* Frees *record and everything it owns (null is accepted), sets it to null. */
void vdp_free(Vdp_t **record);

#ifdef __cplusplus
}
#endif
