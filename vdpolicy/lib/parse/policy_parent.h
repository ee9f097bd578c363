// The parser's one way to a parent policy. A text that names its parent
// (`inherit=...`) is merged under it, but the parent lives in the store, a
// layer above the parser: the store provides this function
// (store/policy_inherit.cpp), so that the parser reaches it without knowing
// the store.
#pragma once

#include <cstddef>

#include "vdpolicy/lib/config/policy_config.h"

namespace vdpol {

// Merges the policy named by policy->polcfg_inherit under policy's own
// values. recurse and inheritance track the chain being loaded (see
// parse_policy_string). Returns 0, or -1 with one message in msg.
int inherit_named_parent(dm_fsid_t fsid, PolicyConfig_t *policy, int recurse,
                         const char **inheritance, char *msg, std::size_t msg_size);

}  // namespace vdpol
