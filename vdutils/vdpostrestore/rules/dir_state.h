// What the walk knows about the directory it is processing.
#pragma once

#include <memory>

#include "vdpolicy/vd_pol_api.h"

// Owner of a policy record this directory loaded itself.
struct VdpFree {
  void operator()(Vdp_t *record) const { vdp_free(&record); }
};
using OwnedVdp = std::unique_ptr<Vdp_t, VdpFree>;

// Owner of a policy handle.
struct VdpolClose {
  void operator()(vdpol_hndl_s *handle) const { vdpol_close(&handle); }
};
using OwnedPolicyHandle = std::unique_ptr<vdpol_hndl_s, VdpolClose>;

struct DirState {
  const Vdp_t *local_vdp = nullptr;  // inherited, or `loaded`
  OwnedVdp loaded;                   // loaded for this directory, freed when it is done
  bool has_vdpd_info = false;        // a record was inherited or "BFST" was read
  bool was_enabled = false;
  bool dedup_enabled = false;
  bool has_builtin_policy = false;  // the policy's key is 0
  bool relation_point = false;      // under a storage-manager relation point
};

// Fills the three policy flags from local_vdp (all false without one).
void derive_policy_flags(DirState &state);

// True when the policy engine's information on this directory and its files
// no longer describes data held anywhere and may be stripped.
bool may_strip_policy_info(const DirState &state);
