// What the walk knows about the directory it is processing.
#include "rules/dir_state.h"

#include "settings.h"

void derive_policy_flags(DirState &state) {
  const Vdp_t *vdp = state.local_vdp;
  state.was_enabled = vdp != nullptr && vdp->vdp_cloud_onoff == VDOPT_TRUE;
  state.dedup_enabled = vdp != nullptr && vdp->vdp_dedup_onoff == VDOPT_TRUE;
  state.has_builtin_policy = vdp != nullptr && vdp->vdp_key == 0;
}

bool may_strip_policy_info(const DirState &state) {
  // Preserve_dedup_files is read afresh: the operator's answer to the
  // deduplication question applies from the moment it is given.
  return state.has_vdpd_info && !state.was_enabled && !Preserve_vdpolicy_info &&
         (!state.dedup_enabled || !Preserve_dedup_files) && !state.relation_point &&
         !state.has_builtin_policy;
}
