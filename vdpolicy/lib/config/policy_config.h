/* The parsed policy configuration record and its parts.
 *
 * Ownership: a PolicyConfig_t built by the parser (or copied with
 * policy_config_init_from) owns every string, array, target and schedule it
 * points to; all of them come from malloc/calloc (schedules from load_entry)
 * and are released together by free_policy_config_contents (policy.h).
 * The compiled-in records (Global_Policy_Config, ...) point to static text
 * and are never freed. A record is not locked: one thread builds it, and
 * once it is shared (the policy cache) it is only read.
 */
#pragma once

#include <stdint.h>
#include <time.h>

#include "kxdmapi/kxdmapi_types.h"
#include "vdpolicy/lib/config/schedule.h"
#include "vdpolicy/vdp_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VDP_MAX_TARGETS 8      /* target words over all rep_target options */
#define VDP_MAX_STEER_BOUNDS 8 /* file-size bounds of a steering spec */
/* n bounds name n + 1 namespaces, so eight bounds need nine entries: the
 * table has room for the ninth rather than refusing a spec that uses all
 * eight bounds. */
#define VDP_MAX_STEER_ENTRIES (VDP_MAX_STEER_BOUNDS + 1)

/* polcfg_flags */
#define VDP_FLAG_DEDUP 0x1u
#define VDP_FLAG_TRUNC 0x4u
#define VDP_FLAG_REP_OUTPUT 0x10u
#define VDP_FLAG_DEDUP_FILTER 0x200u
#define VDP_FLAG_OBJS 0x800u
#define VDP_FLAG_NAMED 0x8000u

/* polcfg_rep_flags */
#define VDP_REP_SUBTREE 0x1u
#define VDP_REP_DEDUP 0x4u
#define VDP_REP_INPUT_ON 0x10u
#define VDP_REP_INPUT_OFF 0x20u
#define VDP_REP_INPUT_DISABLED 0x40u
#define VDP_REP_INPUT_MASK 0x70u
#define VDP_REP_REPORT 0x100u
#define VDP_REP_COMPRESS 0x400u
#define VDP_REP_ENCRYPT 0x1000u

/* One object-storage steering entry: files up to file_size (0 for the last
 * entry) go to container; container may be null when the value named fewer
 * namespaces than entries. */
typedef struct steer_entry {
  uint64_t file_size;
  char *container;
} steer_entry_t;

/* One rep_target option. */
typedef struct pol_target {
  struct pol_target *next;              /* unused by the parser; null */
  struct policy *tgt_policy;            /* left null here */
  char *raw_target;                     /* the whole value as written */
  sched_entry_t *schedule;              /* the bracketed window, or null */
  uint32_t target_cnt;                  /* used entries of target_idx */
  uint32_t target_idx[VDP_MAX_TARGETS]; /* indexes into polcfg_target_names */
} pol_target_t;

typedef struct policy_config {
  vdp_pol_ver_t polcfg_version;
  char *polcfg_name;
  uint64_t polcfg_key;
  char *polcfg_inherit;
  char *polcfg_root;
  uint64_t polcfg_affinity; /* 8 bytes, first character in the lowest */
  char *polcfg_ingest_sched_str;
  int64_t polcfg_fencepost_gap;
  int64_t polcfg_max_seg_size;
  int32_t polcfg_max_seg_age;
  uint32_t polcfg_dedup_age;
  uint64_t polcfg_dedup_min_size;
  uint64_t polcfg_dedup_seg_size;
  uint64_t polcfg_dedup_min_round;
  uint64_t polcfg_dedup_max_round;
  char *polcfg_dedup_regex;
  uint32_t polcfg_dedup_pri;
  char *polcfg_dedup_bfst;
  char *polcfg_cloud_id;
  char *polcfg_cloud_container;
  steer_entry_t polcfg_cloud_steer_entries[VDP_MAX_STEER_ENTRIES];
  int polcfg_cloud_steer_cnt;
  uint32_t polcfg_cloud_age;
  uint32_t polcfg_cloud_pri;
  uint64_t polcfg_cloud_min_size;
  uint64_t polcfg_cloud_seg_size;
  char *polcfg_cloud_regex;
  uint32_t polcfg_trunc_age;
  uint64_t polcfg_trunc_size;
  uint32_t polcfg_trunc_low_water;
  uint32_t polcfg_trunc_high_water;
  uint64_t polcfg_trunc_stub_size;
  char *polcfg_trunc_regex;
  uint32_t polcfg_trunc_pri;
  pol_target_t **polcfg_rep_target; /* polcfg_rep_targ_cnt entries */
  uint32_t polcfg_rep_inline_size;
  uint32_t polcfg_rep_copies;
  char *polcfg_realize;
  char *polcfg_rep_callout;
  char *polcfg_rep_name;
  char *polcfg_rep_relation;
  char *polcfg_rep_regex;
  char *polcfg_rep_sched_str;
  uint32_t polcfg_rep_pri;
  uint32_t polcfg_rep_targ_cnt;
  uint32_t polcfg_target_cnt;
  char **polcfg_target_names; /* polcfg_target_cnt entries */
  uint32_t polcfg_flags;
  uint32_t polcfg_rep_flags;
  vdp_origin_t polcfg_origin[VDP_NUM_SLOTS];
  sched_entry_t *polcfg_ingest_sched;
  sched_entry_t *polcfg_rep_sched;
  /* Each a null-terminated array of malloc'd strings, or null. */
  char **polcfg_dedup_regex_split;
  char **polcfg_cloud_regex_split;
  char **polcfg_trunc_regex_split;
  char **polcfg_rep_regex_split;
  uint8_t polcfg_fields_initialized;
  int polcfg_ref;
  time_t polcfg_mtime;
  dm_fsid_t polcfg_fsid;
  char *polcfg_mount;
  void *polcfg_threads; /* not owned; not used here */
} PolicyConfig_t;

#ifdef __cplusplus
}
#endif
