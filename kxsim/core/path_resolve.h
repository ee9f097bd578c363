// Turning the paths that callers pass into the absolute paths by which the
// simulator knows mounts and objects.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "kxsim/core/sysio.h"

namespace kxsim {

inline constexpr std::string_view kSpecialPrefix = "__KXFS_Handle.";
inline constexpr std::string_view kControlDevice = "/dev/kxfsctl0";
inline constexpr std::string_view kControlNode = "/dev/kxfsctl";

// The control device or the node read for the mount-change time.
bool is_control_device(const char *path);
// The last component begins with "__KXFS_Handle." (a path by handle).
bool is_special_name(const char *path);
// Last component of a path.
std::string_view base_name(std::string_view path);

// Absolute, lexically normalised (no ".", "..", "//"), without resolving
// symbolic links; relative paths are taken from dirfd (AT_FDCWD: the
// working directory). Empty on failure.
std::string absolute_path(int dirfd, const char *path);

// Looks `path` up once, as the kernel does for the driver (a relative path
// from dirfd), following a final symbolic link only when `follow`: an O_PATH
// descriptor of the object, which opens nothing and has no side effects.
// Invalid with errno on failure.
sys::Fd look_up(int dirfd, const char *path, bool follow);

// The canonical path of the object open on fd, as the kernel names it: no
// lookup and no walk of the components. nullopt with errno on failure.
std::optional<std::string> path_of(int fd);

// With symbolic links resolved; the final component itself is resolved only
// when `follow`. One lookup (look_up, path_of) whatever the depth. nullopt
// with errno on failure (ENOENT for a missing final component too).
std::optional<std::string> canonical_path(const std::string &abs, bool follow);

}  // namespace kxsim
