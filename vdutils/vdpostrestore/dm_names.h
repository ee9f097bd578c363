// Names of the data-management attributes and events the tool works with.
#pragma once

#include <cstddef>
#include <cstring>

#include "kxdmapi/kxdmapi.h"

// An attribute name, NUL-padded to its 8 bytes.
inline dm_attrname_t dm_attr_name(const char *name) {
  dm_attrname_t attr{};
  std::strncpy(reinterpret_cast<char *>(attr.an_chars), name, sizeof attr.an_chars);
  return attr;
}

inline constexpr char kBfstName[] = "BFST";  // policy key and flags
inline constexpr char kVdeaName[] = "VDEA";  // storage-manager attributes

// DM_EVENT_CREATE, DM_EVENT_REMOVE and DM_EVENT_LINK: all three are enabled
// on a directory under a storage-manager relation point.
inline constexpr dm_eventset_t kRelationPointEvents =
    (dm_eventset_t{1} << 5) | (dm_eventset_t{1} << 8) | (dm_eventset_t{1} << 12);

// DM_EVENT_BLOCKLET, DM_EVENT_VDPOLICY and DM_EVENT_OK2PUNCH: the per-file
// events of the policy engine.
inline constexpr dm_eventset_t kPolicyFileEvents = 0x70000000;
inline constexpr unsigned kEventMax = 40;  // DM_EVENT_MAX

// No session, no token.
inline constexpr dm_sessid_t kNoSession = 0;
inline constexpr dm_token_t kNoToken = -1;
