#include "kxsim/path_resolve.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

#include "kxsim/sysio.h"

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

std::optional<std::string> canonical_path(const std::string &abs, bool follow) {
  if (!follow) {
    std::string_view base = base_name(abs);
    if (abs == "/" || base == "." || base == "..") return canonical_path(abs, true);
    std::string dir = abs.substr(0, abs.size() - base.size());
    auto parent = canonical_path(dir.empty() ? std::string("/") : dir, true);
    if (!parent) return std::nullopt;
    return (*parent == "/" ? "" : *parent) + "/" + std::string(base);
  }
  char *real = realpath(abs.c_str(), nullptr);
  if (!real) return std::nullopt;
  std::string out(real);
  free(real);
  return out;
}

}  // namespace kxsim
