// Whether a directory lies under a storage-manager relation point.
#pragma once

#include <cstdint>

#include "kxdmapi/kxdmapi_types.h"

// The requests behind get_dir_attrs and their answers (errno 0: success),
// as a read-ahead thread may make them: nothing printed, nothing changed.
struct RelationRead {
  int handle_errno = 0;    // resolving the directory to a handle
  bool names_dir = false;  // the handle names the directory held open
  int vdea_errno = 0;      // reading "VDEA" (by handle, then by descriptor)
  int fileattr_errno = 0;  // reading the events, when "VDEA" is there
  dm_eventset_t events = 0;
  bool fs_located = false;  // asked only when "VDEA" reads as ENOENT
};
RelationRead read_relation_attrs(int dir_fd, const char *dir_path, uint64_t dir_ino);

// A directory is under a relation point when it carries the storage
// manager's "VDEA" attribute and has the create, remove and link events
// enabled. Sets relation_point; false (message written) when the directory
// cannot be resolved to a handle or its "VDEA" cannot be read for a reason
// other than its absence: the run must then stop. When "VDEA" is there but
// the events cannot be read, the directory counts as a relation point: its
// files are kept.
//
// `dir_ino` is the inode number of the directory the walk holds open on
// `dir_fd`. The handle is resolved by path (by the descriptor when the path
// is too long for the driver), so if the path no longer leads to that
// directory (it was replaced while the tool ran) the answer would describe
// another one; that also stops the run.
// `ahead`: the same requests made earlier by a read-ahead thread (null:
// make them now).
[[nodiscard]] bool get_dir_attrs(int dir_fd, const char *dir_path, uint64_t dir_ino,
                                 bool &relation_point, const RelationRead *ahead = nullptr);
