// What the walk knows about the directory it is processing.
#include "dir_state.h"

#include "settings.h"

void derive_policy_flags(DirState &state) {
  const bool have = state.local_vdp.has_value();
  state.was_enabled = have && state.local_vdp->vdp_cloud_onoff;
  state.dedup_enabled = have && state.local_vdp->vdp_dedup_onoff;
  state.has_builtin_policy = have && state.local_vdp->vdp_key == 0;
}

bool may_strip_policy_info(const DirState &state) {
  // Preserve_dedup_files is read afresh: the operator's answer to the
  // deduplication question applies from the moment it is given.
  return state.has_vdpd_info && !state.was_enabled && !Preserve_vdpolicy_info &&
         (!state.dedup_enabled || !Preserve_dedup_files) && !state.relation_point &&
         !state.has_builtin_policy;
}
