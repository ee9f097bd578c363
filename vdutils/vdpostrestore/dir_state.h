// What the walk knows about the directory it is processing.
#pragma once

#include <cstdint>
#include <optional>

// The fields of a directory's policy summary that the clean-up rules read.
struct PolicyView {
  uint64_t vdp_key = 0;
  bool vdp_dedup_onoff = false;  // deduplicated into the blockpool
  bool vdp_cloud_onoff = false;  // copied to object storage ("WAS")
};

struct DirState {
  std::optional<PolicyView> local_vdp;  // inherited, or loaded for this directory
  bool has_vdpd_info = false;           // a record was inherited or "BFST" was read
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
