/* The policy library's public headers are C headers: this file only has to
 * compile as C. */
#include "vdpolicy/lib/dm_util.h"
#include "vdpolicy/lib/policy.h"
#include "vdpolicy/lib/policy_dir_cache.h"
#include "vdpolicy/lib/policy_store.h"
#include "vdpolicy/lib/policy_validate.h"
#include "vdpolicy/lib/vd_pol_api.h"

int vdpolicy_c_header_check(void);
int vdpolicy_c_header_check(void) {
  struct vdpol_hndl_s *handle = 0;
  Vdp_t *record = 0;
  vdp_free(&record);
  vdpol_close(&handle);
  return (int)sizeof(Policy_t);
}
