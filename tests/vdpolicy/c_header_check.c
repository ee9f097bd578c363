/* The policy library's public headers are C headers: this file only has to
 * compile as C. */
#include "vdpolicy/lib/check/dm_util.h"
#include "vdpolicy/lib/check/policy_validate.h"
#include "vdpolicy/lib/config/policy.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/store/policy_dir_cache.h"
#include "vdpolicy/lib/store/policy_file.h"
#include "vdpolicy/lib/store/policy_inherit.h"
#include "vdpolicy/lib/store/policy_store.h"
#include "vdpolicy/policy_cache.h"
#include "vdpolicy/bfst_record.h"
#include "vdpolicy/vd_pol_api.h"

int vdpolicy_c_header_check(void);
int vdpolicy_c_header_check(void) {
  struct vdpol_hndl_s *handle = 0;
  Vdp_t *record = 0;
  vdp_free(&record);
  vdpol_close(&handle);
  return (int)sizeof(Policy_t);
}
