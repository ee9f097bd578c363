// What the walk learns of a directory before it reads its entries.
#include "walk/dir_view.h"

#include <cstdio>

#include "rules/dir_attrs.h"
#include "rules/dir_policy.h"

bool read_dir_view(int fd, const char *path, const char *policy_path, uint64_t ino,
                   const Vdp_t *vdp, bool under_relation_point, DirState &state,
                   const DirReads *ahead) {
  bool policy_unknown = false;
  if (vdp != nullptr) {
    state.local_vdp = vdp;
    state.has_vdpd_info = true;
  } else if (get_dir_vdp(fd, path, policy_path, state.loaded, state.has_vdpd_info, policy_unknown,
                         ahead != nullptr ? &ahead->bfst : nullptr,
                         ahead != nullptr ? ahead->policy.get() : nullptr) < 0) {
    return false;
  } else {
    state.local_vdp = state.loaded.get();
  }
  derive_policy_flags(state);
  if (state.dedup_enabled) ask_keep_dedup_files(stdin);
  state.relation_point = under_relation_point;
  // Below a relation point nothing needs asking again.
  if (!under_relation_point && !get_dir_attrs(fd, path, ino, state.relation_point,
                                              ahead != nullptr ? &ahead->relation : nullptr))
    return false;
  if (policy_unknown) state.relation_point = true;
  return true;
}
