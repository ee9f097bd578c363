// The directories between the file system's root and the directory where
// the walk starts.
//
// A run on a subtree must judge it as a run on the whole file system would:
// a relation point or a keyed directory above the start governs the files
// below it as much as one inside the tree.
#pragma once

#include <sys/stat.h>

#include "rules/dir_state.h"

// What the walk from the root would carry into the start directory.
struct StartContext {
  OwnedVdp loaded;              // the record of the nearest keyed ancestor
  bool relation_point = false;  // an ancestor is, or counts as, a relation point
};

// Reads, top down and without changing anything, what the walk would read
// on its way from the root of the file system holding the directory open
// on `start_fd` (`start` its stat data) down to that directory's parent.
// Nothing to read when the start is the root itself. False after a fatal
// error (message written), also when the start cannot be placed below its
// file system's root (through another mount of it, for instance).
[[nodiscard]] bool read_ancestors(int start_fd, const struct stat &start, StartContext &context);
