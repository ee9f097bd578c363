// validate_policy: the settings of a loaded policy must fit together. The
// first rule that fails is reported, with the two settings (inherit and
// root) that most often explain a failure.
#include "vdpolicy/lib/check/policy_validate.h"

#include <cstring>

#include "libutil/kxlog.h"
#include "libutil/kxras.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/check/dm_util.h"
#include "vdpolicy/lib/check/vd_was_lib.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"

namespace {

constexpr std::size_t kReportSize = 4096;
// Object storage rounds to this size, which is also the library's default.
constexpr uint64_t kObjsMaxRound = 256ULL << 20;

bool is_set(const char *text) {
  return text != nullptr && text[0] != '\0';
}

// The object-storage rule; extension receives what the objs.conf check said.
const char *check_object_storage(PolicyConfig_t *p, char *extension, std::size_t size) {
  if ((p->polcfg_flags & VDP_FLAG_OBJS) == 0) {
    if (is_set(p->polcfg_cloud_id) || is_set(p->polcfg_cloud_container))
      return "OBJS must be turned on to configure OBJS-related parameters";
    return nullptr;
  }
  if (p->polcfg_dedup_max_round == kObjsMaxRound) {
    p->polcfg_dedup_max_round = kObjsMaxRound;
    VDPOL_STORE_TRACE("Setting max round size to 0x%lx\n",
                      static_cast<unsigned long>(kObjsMaxRound));
  }
  if (p->polcfg_cloud_id == nullptr) return "objs_id must be specified when OBJS is turned on";
  if (p->polcfg_cloud_container == nullptr)
    return "objs_namespace must be specified when OBJS is turned on";
  if (verify_was_policy_params(p->polcfg_cloud_id, p->polcfg_cloud_container, extension, size) != 0)
    return "objs_id/objs_namespace must exist in objs.conf: ";
  return nullptr;
}

// The reason of the first rule that fails, or null.
const char *first_failure(PolicyConfig_t *p, char *extension, std::size_t size) {
  const uint32_t flags = p->polcfg_flags;
  if (p->polcfg_name == nullptr && p->polcfg_key == 0) return "a policy must have a key or a name";
  if (p->polcfg_dedup_max_round < p->polcfg_dedup_min_round)
    return "dedup_max_round cannot be less than dedup_min_round";
  if ((flags & VDP_FLAG_DEDUP) != 0 && (flags & VDP_FLAG_OBJS) != 0)
    return "Cannot have both dedup and OBJS enabled in same policy";
  if ((flags & VDP_FLAG_OBJS) != 0 && (flags & VDP_FLAG_REP_OUTPUT) != 0)
    return "Cannot have OBJS and replication enabled in same policy";
  if (const char *reason = check_object_storage(p, extension, size)) return reason;
  if ((p->polcfg_trunc_high_water == 0) != (p->polcfg_trunc_low_water == 0))
    return "high/low watermarks must both be zero or non-zero";
  if (p->polcfg_trunc_high_water != 0 && p->polcfg_trunc_low_water >= p->polcfg_trunc_high_water)
    return "the high watermark must be greater than the low watermark";
  if (p->polcfg_name != nullptr && p->polcfg_inherit != nullptr &&
      std::strcmp(p->polcfg_name, p->polcfg_inherit) == 0)
    return "A policy can't inherit from itself";
  if ((flags & VDP_FLAG_REP_OUTPUT) != 0 && p->polcfg_rep_targ_cnt == 0)
    return "replication requires target definitions";
  return nullptr;
}

void report(const PolicyConfig_t *p, const char *reason, const char *extension, char *ErrMsg,
            std::size_t ErrMsgSz) {
  char root[POLICY_ROOT_PATH_SIZE] = "";
  if (p->polcfg_root != nullptr && get_policy_root_path(p, 1, root) != 0) root[0] = '\0';
  const bool by_root = root[0] != '\0';
  char text[kReportSize];
  KxSnprintf(text, sizeof text,
             "Policy '%s%s' failed validation:\nReason: %s%s\nParams: inherit=%s root=%s",
             by_root ? "on " : (p->polcfg_name != nullptr ? p->polcfg_name : "(null)"),
             by_root ? root : "", reason, extension,
             p->polcfg_inherit != nullptr ? p->polcfg_inherit : "NULL",
             p->polcfg_root != nullptr ? p->polcfg_root : "NULL");
  if (ErrMsg != nullptr && ErrMsgSz > 0) KxSnprintf(ErrMsg, ErrMsgSz, "%s", text);
  if (need_pol_ras_throttle != 0 && need_pol_ras(p->polcfg_name, p->polcfg_key) == 0) return;
  __kxfs_logfn(KXLOG_ERROR, "%s\n", text);
  RasEvent("SL_EVT_REP_DEDUPE_COMM", "%s", text);
}

}  // namespace

extern "C" int validate_policy(PolicyConfig_t *policy, dm_fsid_t /*fsid*/, char *ErrMsg,
                               size_t ErrMsgSz) {
  char extension[kReportSize] = "";
  const char *reason = first_failure(policy, extension, sizeof extension);
  if (reason == nullptr) return 1;
  report(policy, reason, extension, ErrMsg, ErrMsgSz);
  return 0;
}
