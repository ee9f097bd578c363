// Whether a directory lies under a storage-manager relation point.
#pragma once

#include <cstdint>

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
[[nodiscard]] bool get_dir_attrs(int dir_fd, const char *dir_path, uint64_t dir_ino,
                                 bool &relation_point);
