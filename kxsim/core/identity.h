// What the driver knows a file by: its inode number and a generation that
// tells a file apart from a later one that reuses the inode number.
//
// The generation comes from the file's birth time (statx STATX_BTIME),
// folded to 32 bits; on file systems without birth times it is 0 and a
// reused inode number cannot be told apart. The same rule is used for every
// handle the simulator makes or checks (path to handle, descriptor to
// handle, handle to path, open by handle) and for the stamp that guards a
// file's stored state.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

namespace kxsim {

struct Identity {
  std::uint64_t ino = 0;
  std::uint32_t generation = 0;
  std::string born;  // "<sec>.<nsec>" of the birth time, or "-" when unknown
  struct statx stx {};
};

// Of a path (not following a final symbolic link) or of an open descriptor.
// false with errno on failure.
bool identify_path(const std::string &path, Identity &out);
bool identify_fd(int fd, Identity &out);

// True when the object lies on the device `dev` (0: unknown, taken as yes).
bool on_device(const Identity &id, std::uint64_t dev);

}  // namespace kxsim
