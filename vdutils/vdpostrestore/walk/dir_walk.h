// The depth-first walk of the tree under Mount_Point.
//
// Each directory is opened relative to its parent's descriptor without
// following symbolic links, its entries are examined with fstatat relative
// to it, and files are opened and removed relative to it. A directory that
// is replaced by a symbolic link while the walk runs is therefore never
// followed: the walk cannot be led out of the tree, and -r cannot remove a
// file elsewhere. The walk holds one descriptor per level of depth.
#pragma once

// Walks the tree under Mount_Point with no inherited policy and as not under
// a relation point. False after a fatal error (message written).
[[nodiscard]] bool walk_tree();
