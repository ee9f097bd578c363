/* Scalar types shared by the policy configuration (policy_config.h) and the
 * summary record handed to callers (vd_pol_api.h). */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t vdp_pol_ver_t;

/* Where a slot's value came from. */
typedef enum vdp_origin {
  VDP_ORIGIN_DEFAULT = 0,
  VDP_ORIGIN_INHERITED = 1,
  VDP_ORIGIN_LOCAL = 2
} vdp_origin_t;

#define VDP_POLCFG_VERSION 0xACE10001u
#define VDP_NUM_SLOTS 75 /* entries of the origin arrays */

#ifdef __cplusplus
}
#endif
