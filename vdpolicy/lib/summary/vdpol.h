/* Building the summary record of vd_pol_api.h from a cached configuration.
 * Internal to the policy library (and its tests); not installed.
 *
 * Each function returns 0 or an error number (12, 22) with a message in
 * errbuf (errlen bytes; either may be null/0). */
#pragma once

#include <stddef.h>

#include "vdpolicy/lib/config/policy_config.h"
#include "vdpolicy/vd_pol_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A zeroed record with its version and the two -1 presets. */
int vdp_alloc(Vdp_t **record, char *errbuf, size_t errlen);

/* A new record filled from config; *record is null after a failure. */
int _policy_to_vdp(Vdp_t **record, const PolicyConfig_t *config, char *errbuf, size_t errlen);

/* Appends config's targets to record's list, in order. Nodes appended
 * before a failure stay on the record. */
int _pol_targets_to_vdp(const PolicyConfig_t *config, Vdp_t *record, char *errbuf, size_t errlen);

/* Removes every trailing '/' of str in place; null and "" are left alone. */
void vdp_strip_trailing_slash(char *str);

#ifdef __cplusplus
}
#endif
