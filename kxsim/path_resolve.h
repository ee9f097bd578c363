// Turning the paths that callers pass into the absolute paths by which the
// simulator knows mounts and objects.
#pragma once

#include <optional>
#include <string>
#include <string_view>

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

// With symbolic links resolved; the final component itself is resolved only
// when `follow`. nullopt with errno on failure.
std::optional<std::string> canonical_path(const std::string &abs, bool follow);

}  // namespace kxsim
