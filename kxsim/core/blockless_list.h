// Files that a fixture means to be "restored without data" (size > 0, no
// allocated blocks). `kxsim populate` records them so that `kxsim check` can
// refuse a fixture in which one of them has blocks after all: such a file
// would silently stop looking restored to the tool under test.
//
// Kept in <state dir>/<fsid>/blockless, one "<inode> <relative path>" line
// per file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kxsim/core/config.h"
#include "kxsim/core/state_store.h"

namespace kxsim {

struct BlocklessEntry {
  std::uint64_t ino = 0;
  std::string rel_path;
};

// Appends entries to the mount's list. false with errno.
bool record_blockless(const StateStore &store, const Mount &m,
                      const std::vector<BlocklessEntry> &entries);

// Checks every recorded file under `dir` (a directory inside the mount) that
// still exists with its recorded inode number; returns the absolute paths of
// those that have allocated blocks. false with `error` set when the list
// cannot be read.
bool find_allocated_blockless(const StateStore &store, const Mount &m, const std::string &dir,
                              std::vector<std::string> &offenders, std::string &error);

}  // namespace kxsim
