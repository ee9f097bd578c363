// Layer core (kxsim/core/): what the driver and the command line share, the
// mount registry, object state and its store, handles, byte and path helpers.
// It calls only the C library (through sysio.h) and itself.
//
// The registry of simulated mounts: the configuration file (config_path.h),
// written by `kxsim mkfs`.
//
// Format, one mount per line ('#' starts a comment line):
//   mount <fsid as 16 hex digits> <rename tracking 0|1> <absolute directory>
// The directory comes last so that it may hold blanks.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kxsim {

struct Mount {
  std::string dir;  // canonical absolute path, no trailing slash
  std::uint64_t fsid = 0;
  bool rename_tracking = true;
  // The device of `dir`, filled in by the preloaded library (0: unknown).
  // A file system mounted inside the directory is not this one: the driver
  // answers only for objects on its own device.
  std::uint64_t dev = 0;
};

struct Config {
  std::vector<Mount> mounts;

  // The mount holding an absolute canonical path (longest match), or null.
  const Mount *find_by_path(std::string_view path) const;
  // The one mount on device `dev`; null when none is, or several are.
  const Mount *find_by_device(std::uint64_t dev) const;
  const Mount *find_by_fsid(std::uint64_t fsid) const;
};

// Parses the text; on a malformed line returns false and names it in `error`.
bool parse_config(std::string_view text, Config &out, std::string &error);
std::string format_config(const Config &cfg);

// The fsid a mount gets when none is chosen: a hash of the directory, never 0.
std::uint64_t default_fsid(std::string_view dir);

// Where the driver's per-object state lives: next to the configuration file.
std::string state_dir_for(const std::string &config_path);

// The configuration directory that `kxsim run` offers the client libraries
// as KXFSCONF (objs.conf lives there): part of the simulator's state, so a
// fixture's object-storage configuration goes away with it.
std::string conf_dir_for(const std::string &config_path);

// True when `path` is `dir` or lies below it.
bool path_within(std::string_view path, std::string_view dir);

// Path of `path` relative to `dir` ("" for dir itself); path must be within.
std::string_view relative_to(std::string_view path, std::string_view dir);

}  // namespace kxsim
