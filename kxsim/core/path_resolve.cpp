#include "kxsim/core/path_resolve.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <vector>

#include "kxsim/core/sysio.h"

namespace kxsim {

bool is_control_device(const char *path) {
  return path && (kControlDevice == path || kControlNode == path);
}

std::string_view base_name(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool is_special_name(const char *path) {
  return path && base_name(path).starts_with(kSpecialPrefix);
}

namespace {
std::string normalise(std::string_view path) {
  std::vector<std::string_view> parts;
  while (!path.empty()) {
    std::size_t slash = path.find('/');
    std::string_view part = path.substr(0, slash);
    path = slash == std::string_view::npos ? std::string_view() : path.substr(slash + 1);
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(part);
  }
  std::string out;
  for (auto p : parts) {
    out += '/';
    out += p;
  }
  return out.empty() ? "/" : out;
}
}  // namespace

std::string absolute_path(int dirfd, const char *path) {
  if (!path || !*path) return {};
  if (path[0] == '/') return normalise(path);
  std::string base;
  if (dirfd == AT_FDCWD) {
    char cwd[PATH_MAX];
    if (!getcwd(cwd, sizeof cwd)) return {};
    base = cwd;
  } else {
    base = sys::fd_path(dirfd);
    if (base.empty() || base[0] != '/') return {};
  }
  return normalise(base + "/" + path);
}

sys::Fd look_up(int dirfd, const char *path, bool follow) {
  return sys::Fd(sys::open_at(dirfd, path, O_PATH | (follow ? 0 : O_NOFOLLOW)));
}

std::optional<std::string> path_of(int fd) {
  std::string out = sys::fd_path(fd);
  if (out.empty()) return std::nullopt;
  // Not below this process's root (another mount namespace or chroot):
  // nothing there has a path a caller could give.
  if (out[0] != '/') {
    errno = ENOENT;
    return std::nullopt;
  }
  return out;
}

std::optional<std::string> canonical_path(const std::string &abs, bool follow) {
  sys::Fd fd = look_up(AT_FDCWD, abs.c_str(), follow);
  if (!fd.valid()) return std::nullopt;
  return path_of(fd.get());
}

}  // namespace kxsim
