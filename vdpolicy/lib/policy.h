/* Policy texts: the keyword table, the compiled-in policies and the parser.
 *
 * A policy is plain text of comma-separated `keyword=value` options, one or
 * more per line (docs/policy-format.md). parse_policy_string reads one text
 * into a PolicyConfig_t (policy_config.h), marking every slot it sets
 * VDP_ORIGIN_LOCAL.
 *
 * Threads: the table and the compiled-in records are read-only after start
 * and need no lock; a PolicyConfig_t being parsed belongs to the one caller.
 */
#pragma once

#include <stddef.h>

#include "libutil/option_parse.h"
#include "vdpolicy/lib/policy_config.h"
#include "vdpolicy/lib/policy_slots.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The keyword table, ended by a row whose m_name is null. m_field_offset is
 * the offset of the row's field in PolicyConfig_t. */
extern const Option PolicyOptions[];

/* The ends of every inheritance chain: "default", "config" and "target".
 * Static records pointing to static text: never freed nor modified. */
extern PolicyConfig_t Global_Policy_Config;
extern PolicyConfig_t Config_Policy_Config;
extern PolicyConfig_t Target_Policy_Config;

/* Parses options[0 .. options_len) into policy. The text is cut into lines
 * in place (line feeds become NUL); it need not be NUL-terminated. policy
 * already holds its key, file system, mount point and any inherited or
 * default values; a value the text sets replaces them (an owned string is
 * freed first) and its slot becomes LOCAL. With do_inherit, `root` is stored
 * as "<polcfg_mount>/__KXFS_Handle.<value>" (the value alone without a
 * mount point), and the policy named by `inherit` is looked up in the
 * policy store (policy_store.h; policy_lock held) and merged in; recurse
 * and inheritance[] (VDP_MAX_INHERIT_DEPTH + 1 names) track the chain.
 * Returns 0, or -1 with one message in ErrMsg (ErrMsgSz bytes; either may be
 * null/0). A syntax error also raises the RAS event SL_EVT_REP_DEDUPE_COMM.
 * After a failure the record holds what was stored before the failing
 * option; everything in it is still owned and freed as usual. */
#define VDP_MAX_INHERIT_DEPTH 15
int parse_policy_string(dm_fsid_t fsid, PolicyConfig_t *policy, char *options, size_t options_len,
                        int do_inherit, int recurse, const char **inheritance, char *ErrMsg,
                        size_t ErrMsgSz);

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

/* Fills every slot of dst whose origin is still VDP_ORIGIN_DEFAULT from src
 * (a parent); a slot src set becomes VDP_ORIGIN_INHERITED. dst's mtime
 * becomes the later of the two. Out of memory ends the merge early (logged;
 * what was merged stays). */
void merge_policy(PolicyConfig_t *dst, const PolicyConfig_t *src);

/* Zeroes config and sets the values of a record about to be parsed:
 * version, polcfg_fencepost_gap, polcfg_max_seg_size and polcfg_max_seg_age
 * -1, polcfg_ref 1. */
void init_policy_config(PolicyConfig_t *config);

/* Frees every allocation config owns (strings, steering namespaces, targets
 * with their schedules, target names, blackout windows, split filters,
 * mount point) and leaves their pointers null and their counts 0; the
 * record itself is not freed. Null is ignored. Never call it on the
 * compiled-in records. */
void free_policy_config_contents(PolicyConfig_t *config);

/* Frees config's replication targets and target names (counts become 0). */
void free_policy_targets(PolicyConfig_t *config);

#ifdef __cplusplus
}
#endif
