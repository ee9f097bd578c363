/* Compiled as C: the public headers must stay usable from C programs. */
#include "kxdmapi/kxdmapi.h"

int kxdmapi_c_header_check(void);

int kxdmapi_c_header_check(void) {
  dm_handle_t handle;
  dm_attrname_t name = {{'B', 'F', 'S', 'T', 0, 0, 0, 0}};
  Dmig_t frame = {0, DMIG_VERSION, 0, 0, 0, 0};
  dm_mnt_cache_t report = {0, 0};
  (void)name;
  (void)report;
  if (sizeof handle != DM_HANDLE_MAX || sizeof frame != 24) return 1;
  return dm_handle_is_global(DM_GLOBAL_HANP, DM_GLOBAL_HLEN) == 1 ? 0 : 1;
}
