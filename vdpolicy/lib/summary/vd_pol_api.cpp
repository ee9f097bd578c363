// vdpol_open / vdpol_load / vdpol_close: a policy handle on a directory of a
// managed file system, and the summary record of a policy key.
#include "vdpolicy/vd_pol_api.h"

#include <cstdlib>
#include <cstring>

#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_paths.h"
#include "libutil/kxlog.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/store/policy_store.h"
#include "vdpolicy/lib/summary/vdpol.h"

namespace {

constexpr int kNoPolicy = 2;
constexpr int kNoMemory = 12;
constexpr int kInvalid = 22;

#define API_TRACE(...) VDPOL_TRACE(KXFS_FAC_VDPOLICY, ::vdpol::kTraceApi, __VA_ARGS__)

using Message = vdpol::CallerMessage;

const char *shown(const char *text) {
  return text != nullptr ? text : "(null)";
}

int open_handle(const char *dir_path, vdpol_hndl_s *&h, Message &msg) {
  if (dir_path == nullptr)
    return msg.fail(kInvalid, "VDPOL: ERROR(%d): No path supplied.", kInvalid);
  h = static_cast<vdpol_hndl_s *>(vdpol::mem_calloc(1, sizeof(vdpol_hndl_s)));
  if (h == nullptr)
    return msg.fail(kNoMemory, "VDPOL: ERROR(%d): Out of memory: %s.", kNoMemory, dir_path);
  std::strncpy(h->VdpDir, dir_path, sizeof h->VdpDir - 1);
  int rc = dm_path_to_handle_client(dir_path, &h->VdpDmHndl, &h->VdpDmHndlSz);
  if (rc != 0)
    return msg.fail(rc, "VDPOL: ERROR(%d): dm_path_to_handle_client failed %s.", rc, dir_path);
  dm_ino_t scratch_inode = 0;
  if (dm_crack_handle(h->VdpDmHndl, h->VdpDmHndlSz, &h->VdpDmFsId, &scratch_inode, nullptr) == 0)
    return msg.fail(kInvalid, "VDPOL: ERROR(%d): %d = crack handle(%s) failed.", 0, kInvalid,
                    dir_path);
  return 0;
}

}  // namespace

extern "C" {

int vdpol_open(const char *dir_path, vdpol_hndl_s **handle, char *errbuf, size_t errlen) {
  API_TRACE("Enter: vdpol_open(%s)\n", shown(dir_path));
  Message msg(errbuf, errlen);
  vdpol_hndl_s *h = nullptr;
  int rc = handle != nullptr
               ? open_handle(dir_path, h, msg)
               : msg.fail(kInvalid, "VDPOL: ERROR(%d): No handle supplied.", kInvalid);
  if (rc == 0 && h != nullptr && handle != nullptr) {
    API_TRACE("Exit: vdpol_open(%s,%p,0x%lx): OK\n", dir_path, static_cast<void *>(h),
              static_cast<unsigned long>(h->VdpDmFsId));
    *handle = h;
    return 0;
  }
  __kxfs_logfn(KXLOG_ERROR, "vdpol_open(%s,%p) failed: %s\n", shown(dir_path),
               static_cast<void *>(h), msg.text);
  vdpol_close(&h);
  if (handle != nullptr) *handle = nullptr;
  return rc;
}

int vdpol_load(vdpol_hndl_s *handle, const char *name, vdp_key_t key, Vdp_t **record, char *errbuf,
               size_t errlen) {
  const dm_fsid_t fsid = handle != nullptr ? handle->VdpDmFsId : 0;
  API_TRACE("Enter: vdpol_load(h=%p nm=%s key=%ld fsid=0x%lx)\n", static_cast<void *>(handle),
            shown(name), static_cast<long>(key), static_cast<unsigned long>(fsid));
  Message msg(errbuf, errlen);
  Vdp_t *r = nullptr;
  int rc = 0;
  if (handle == nullptr || record == nullptr) {
    rc = msg.fail(kInvalid, "VDPOL: ERROR(%d): No policy handle or record supplied.", kInvalid);
  } else {
    const char *lookup_name = key == 0 && name == nullptr ? "global" : name;
    Policy_t *policy = lookup_policy(fsid, nullptr, lookup_name, key);
    if (policy == nullptr) {
      rc = msg.fail(kNoPolicy, "VDPOL: ERROR(%d): lookup_policy: key = %ld", kNoPolicy,
                    static_cast<long>(key));
    } else {
      rc = _policy_to_vdp(&r, policy->pol_config, msg.text, sizeof msg.text);
      if (rc != 0) msg.publish();
      release_policy(policy);
    }
  }
  if (rc == 0 && record != nullptr) {
    *record = r;
    API_TRACE("Exit: vdpol_load(h=%p nm=%s key=%ld) OK\n", static_cast<void *>(handle), shown(name),
              static_cast<long>(key));
    return 0;
  }
  __kxfs_logfn(KXLOG_ERROR, "vdpol_load(h=%p nm=%s key=%ld) failed: %s\n",
               static_cast<void *>(handle), shown(name), static_cast<long>(key), msg.text);
  if (record != nullptr) *record = nullptr;
  return rc;
}

void vdpol_close(vdpol_hndl_s **handle) {
  vdpol_hndl_s *h = handle != nullptr ? *handle : nullptr;
  API_TRACE("Enter: vdpol_close(%p)\n", static_cast<void *>(h));
  if (handle != nullptr) *handle = nullptr;
  if (h == nullptr) return;
  if (h->VdpDmHndl != nullptr) dm_handle_free(h->VdpDmHndl, h->VdpDmHndlSz);
  std::memset(h, 0, sizeof *h);
  std::free(h);
}

}  // extern "C"
