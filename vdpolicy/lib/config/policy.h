/* Policies as records: the keyword table, the compiled-in policies at the
 * ends of every inheritance chain, and the life of a PolicyConfig_t
 * (policy_config.h). The parser (parse/policy_parse.h) fills a record, the
 * store (store/) loads, inherits and caches it.
 *
 * Threads: the table and the compiled-in records are read-only after start
 * and need no lock; a PolicyConfig_t being built belongs to the one caller.
 */
#pragma once

#include <stddef.h>

#include "libutil/option_parse.h"
#include "vdpolicy/lib/config/policy_config.h"
#include "vdpolicy/policy_slots.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The keyword table, ended by a row whose m_name is null. m_field_offset is
 * the offset of the row's field in PolicyConfig_t. */
extern const Option PolicyOptions[];

/* Keys 1, 2 and 3 are the policies named "global", "config" and "target";
 * a policy of its own has a key from this one on, stored as "key_<key>". */
#define VDP_FIRST_FILE_KEY 4

/* The ends of every inheritance chain: "default", "config" and "target".
 * Static records pointing to static text: never freed nor modified. */
extern PolicyConfig_t Global_Policy_Config;
extern PolicyConfig_t Config_Policy_Config;
extern PolicyConfig_t Target_Policy_Config;

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
