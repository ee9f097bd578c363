// What the walk learns of a directory before it reads its entries: the
// policy in force and whether it lies under a relation point.
#pragma once

#include <cstdint>

#include "rules/dir_attrs.h"
#include "rules/dir_state.h"
#include "rules/event_attr.h"

// Fills `state` for the directory open on `fd` (named `path`, inode `ino`):
// the record inherited from above (`vdp`, may be null) or the one its own
// "BFST" names, read through a policy handle opened on `policy_path`; the
// deduplication question when that policy deduplicates; and, unless
// `under_relation_point` already says so, its relation-point attributes. A
// directory whose policy cannot be known counts as under a relation point.
// Changes nothing on the file system. False after a fatal error (message
// written).
// `ahead`: the directory's reads made earlier by a read-ahead thread (null:
// make them now).
struct DirReads {
  BfstRead bfst;
  RelationRead relation;
  OwnedPolicyHandle policy;  // opened when "BFST" names a policy; null: failed
};
[[nodiscard]] bool read_dir_view(int fd, const char *path, const char *policy_path, uint64_t ino,
                                 const Vdp_t *vdp, bool under_relation_point, DirState &state,
                                 const DirReads *ahead = nullptr);
