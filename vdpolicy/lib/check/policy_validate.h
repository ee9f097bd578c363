/* The last check of a loaded policy, and the throttle that keeps a broken
 * policy from raising more than one RAS event a day. */
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "vdpolicy/lib/config/policy_config.h"

#ifdef __cplusplus
extern "C" {
#endif

/* 1 when policy's settings fit together, else 0 with the report
 * "Policy '...' failed validation:\nReason: ...\nParams: ..." in ErrMsg
 * (ErrMsgSz bytes; either may be null/0), also logged and raised as the RAS
 * event SL_EVT_REP_DEDUPE_COMM unless throttled. */
int validate_policy(PolicyConfig_t *policy, dm_fsid_t fsid, char *ErrMsg, size_t ErrMsgSz);

/* Throttling of need_pol_ras: 0 (the default) lets every event through. */
extern int need_pol_ras_throttle;
extern pthread_mutex_t pol_ras_lock; /* guards the table; a leaf lock */
#define POL_RAS_ENTRIES 128
#define POL_RAS_INTERVAL 86400 /* seconds between events of one policy */

/* 1 when an event about the policy (by name when one is given, else by key)
 * may be raised now, 0 when one was raised within the last day. The table
 * keeps 128 policies; a new one replaces the oldest. Locks pol_ras_lock. */
int need_pol_ras(const char *name, uint64_t key);

#ifdef __cplusplus
}
#endif
