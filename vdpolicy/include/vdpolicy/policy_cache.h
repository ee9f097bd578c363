/* The policy cache as a client sees it. Every lookup (vdpol_load) reads a
 * policy once and keeps it; a policy file rewritten in place does not move
 * its directory's time, so a program that rewrites one says so here.
 * Every function takes the locks it needs. */
#pragma once

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Marks every cached policy of fsid stale and records the policy directory's
 * time. Takes policy_lock, then policy_dir_lock. */
void mark_policy_cache_stale(dm_fsid_t fsid);
/* Marks one cached policy stale: by name when one is given, else by key.
 * Takes policy_lock. */
void stale_policy(dm_fsid_t fsid, uint64_t key, const char *name);
/* Drops every cached policy and empties the directory cache, so that a
 * program can end (or a leak check run) with nothing left allocated.
 * References held by callers stay valid. Takes both locks. */
void free_policy_caches(void);

#ifdef __cplusplus
}
#endif
