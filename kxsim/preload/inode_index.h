// Handle to path without walking the tree per request: per file system, a
// map from inode number to the path relative to the mount point. Entries are
// added whenever the simulator learns a path (path to handle, descriptor to
// handle) and verified on use by one statx, which also gives the file's
// identity; a miss or a stale entry rebuilds the map with
// one walk of the mount. An inode that the last walk did not find is not
// looked for again within a second, so that asking for a dead file's handle
// cannot make every request walk the tree.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "kxsim/core/config.h"
#include "kxsim/core/identity.h"

namespace kxsim {

class InodeIndex {
 public:
  void note(const Mount &m, std::uint64_t ino, std::string_view rel_path);
  // Relative path of the inode in the mount and the identity of the file
  // found there, or nullopt when no such file.
  std::optional<std::string> lookup(const Mount &m, std::uint64_t ino, Identity &id);
  void forget(const Mount &m, std::uint64_t ino);

 private:
  struct PerMount {
    std::unordered_map<std::uint64_t, std::string> paths;
    std::unordered_set<std::uint64_t> missing;  // not found by the last walk
    std::chrono::steady_clock::time_point last_walk{};
  };
  void rebuild(const Mount &m, PerMount &pm);
  static bool verify(const Mount &m, std::uint64_t ino, const std::string &rel, Identity &id);

  std::unordered_map<std::uint64_t, PerMount> mounts_;
};

}  // namespace kxsim
