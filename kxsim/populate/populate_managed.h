// `kxsim populate --managed`: a file system as a metadata restore leaves it
// under the policy engine and the storage manager. Every name says what the
// object is (docs/kxsim.md has the layout):
//   k<key>_<j>/              "BFST" with the key; sub1/ and sub1/sub2/ below
//                            it inherit (no "BFST" of their own)
//   rp<i>/                   relation point: "VDEA" 01, events 0x1120; the
//                            same two subdirectories
//   f<n> r<n> s<n>           files with data, restored without data, and
//                            restored without data but stored elsewhere
// Every file below a keyed directory carries the engine's per-file
// information: its own "BFST" (the key; blk_flags 0x0001 or 0x0400 on s<n>),
// the representations "BLOB", "OBJF", "REPL" and events 0x70000000.
#pragma once

#include <cstdint>
#include <string>

#include "kxsim/populate/populate_tree.h"

namespace kxsim::cli {

struct ManagedPlan {
  std::uint64_t keys = 4;
  std::uint64_t keyed_dirs = 2;  // per key
  std::uint64_t relation_points = 1;
  std::uint64_t files_per_dir = 20;
  std::uint64_t blockless = 25;  // percent of each directory's files
  std::uint64_t stored = 50;     // percent of those, where the policy keeps copies
};

// Builds it below the builder's top directory; the policies go to the
// mount's policy directory and objs.conf to conf_dir.
bool build_managed_tree(TreeBuilder &b, const ManagedPlan &plan, const std::string &conf_dir,
                        std::string &error);

}  // namespace kxsim::cli
