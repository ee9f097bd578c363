/* One stored policy, from its file in the policy directory to a complete,
 * validated configuration. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "vdpolicy/lib/config/policy.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the stored policy `name` (or, with a null name, `key`) of fsid into
 * policy (prepared by init_policy_config): reads its file from the policy
 * store in one read, parses it, and with do_inherit fills what it leaves
 * unset from its parents; then derives values, compiles the blackout
 * windows and validates it. A missing file gives a policy built by
 * inheritance alone, except for a key of 4 or more (an error) and for a
 * name other than the four reserved ones (an error without a message).
 * Called with policy_lock held when do_inherit is set. Returns 0 or -1 with
 * one message in ErrMsg. */
int parse_policy_file(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                      PolicyConfig_t *policy, int do_inherit, int recurse, const char **inheritance,
                      char *ErrMsg, size_t ErrMsgSz);

#ifdef __cplusplus
}
#endif
