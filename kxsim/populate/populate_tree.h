// Layer populate (kxsim/populate/): the fixtures `kxsim populate` builds.
// Calls core/ only; called by cli/.
//
// What `kxsim populate` builds a fixture with: directories, files restored
// without data (size, no blocks) or written with it, and the driver's state
// of the objects it makes. The builder counts what it made for the summary
// line and collects the blockless files for `kxsim check`.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "kxsim/core/blockless_list.h"
#include "kxsim/core/config.h"
#include "kxsim/core/object_state.h"
#include "kxsim/core/state_store.h"

namespace kxsim::cli {

struct PopulateCounts {
  std::uint64_t files = 0, blockless = 0, stored = 0, dirs = 0;
  std::uint64_t keyed = 0, relation_points = 0, policies = 0;
};

class TreeBuilder {
 public:
  // `top` is the canonical directory being populated, inside mount `m`.
  TreeBuilder(const Mount &m, StateStore &store, std::string top, std::uint64_t file_size,
              std::uint64_t seed);

  const Mount &mount() const { return mount_; }
  const StateStore &store() const { return store_; }
  std::string path(const std::string &rel) const;
  std::mt19937_64 &random() { return random_; }
  PopulateCounts &counts() { return counts_; }

  // Each of these returns false with `error` naming the path and the reason.
  bool make_dir(const std::string &rel, std::string &error);
  // Makes `name` in the directory `dir_rel` (open as dirfd), with the
  // driver's state `state` unless that is empty.
  bool make_file(int dirfd, const std::string &dir_rel, const std::string &name, bool blockless,
                 const ObjectState &state, std::string &error);
  bool save_state(const std::string &rel, ObjectState state, std::string &error);
  // Appends the blockless files made to the mount's list.
  bool record(std::string &error);

 private:
  const Mount &mount_;
  StateStore &store_;
  std::string top_, top_rel_, data_;
  std::mt19937_64 random_;
  PopulateCounts counts_;
  std::vector<BlocklessEntry> blockless_;
};

// "<prefix><number, 7 digits>": file names are numbered across one run.
std::string file_name(char prefix, std::uint64_t number);

// The plain tree: `dirs` directories nested eight to a level ("d00000"...),
// `files` files ("f0000000"...) spread over them round robin, exactly
// `percent`% of them blockless (a seeded shuffle).
bool build_plain_tree(TreeBuilder &b, std::uint64_t dirs, std::uint64_t files,
                      std::uint64_t percent, std::string &error);

}  // namespace kxsim::cli
