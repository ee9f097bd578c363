/* The policy parser: text of comma-separated `keyword=value` options, one or
 * more per line (docs/policy-format.md), read into a PolicyConfig_t. Every
 * slot a text sets is marked VDP_ORIGIN_LOCAL. */
#pragma once

#include <stddef.h>

#include "vdpolicy/lib/config/policy.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Parses options[0 .. options_len) into policy. The text is cut into lines
 * in place (line feeds become NUL); it need not be NUL-terminated. policy
 * already holds its key, file system, mount point and any inherited or
 * default values; a value the text sets replaces them (an owned string is
 * freed first) and its slot becomes LOCAL. With do_inherit, `root` is stored
 * as "<polcfg_mount>/__KXFS_Handle.<value>" (the value alone without a
 * mount point), and the policy named by `inherit` is inherited through
 * vdpol::inherit_named_parent (policy_parent.h; policy_lock held); recurse
 * and inheritance[] (VDP_MAX_INHERIT_DEPTH + 1 names) track the chain.
 * Returns 0, or -1 with one message in ErrMsg (ErrMsgSz bytes; either may be
 * null/0). A syntax error also raises the RAS event SL_EVT_REP_DEDUPE_COMM.
 * After a failure the record holds what was stored before the failing
 * option; everything in it is still owned and freed as usual. */
#define VDP_MAX_INHERIT_DEPTH 15
int parse_policy_string(dm_fsid_t fsid, PolicyConfig_t *policy, char *options, size_t options_len,
                        int do_inherit, int recurse, const char **inheritance, char *ErrMsg,
                        size_t ErrMsgSz);

#ifdef __cplusplus
}
#endif
