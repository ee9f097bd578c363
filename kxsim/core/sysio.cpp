#include "kxsim/core/sysio.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace kxsim::sys {

Fd &Fd::operator=(Fd &&o) noexcept {
  if (this != &o) {
    if (fd_ >= 0) close_fd(fd_);
    fd_ = o.release();
  }
  return *this;
}

Fd::~Fd() {
  if (fd_ >= 0) close_fd(fd_);
}

int open_at(int dirfd, const char *path, int flags, unsigned mode) {
  return static_cast<int>(syscall(SYS_openat, dirfd, path, flags | O_CLOEXEC, mode));
}

int close_fd(int fd) {
  return static_cast<int>(syscall(SYS_close, fd));
}

int unlink_at(int dirfd, const char *path, int flags) {
  return static_cast<int>(syscall(SYS_unlinkat, dirfd, path, flags));
}

namespace {
bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t n = write(fd, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}
}  // namespace

bool read_file(const std::string &path, std::string &out) {
  Fd fd(open_at(AT_FDCWD, path.c_str(), O_RDONLY));
  if (!fd.valid()) return false;
  out.clear();
  char buf[8192];
  for (;;) {
    ssize_t n = read(fd.get(), buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (n == 0) return true;
    out.append(buf, static_cast<std::size_t>(n));
  }
}

bool write_file_atomic(const std::string &path, std::string_view text) {
  std::string tmp = path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(gettid());
  {
    Fd fd(open_at(AT_FDCWD, tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (!fd.valid()) return false;
    if (!write_all(fd.get(), text)) {
      int e = errno;
      unlink_at(AT_FDCWD, tmp.c_str());
      errno = e;
      return false;
    }
  }
  if (rename(tmp.c_str(), path.c_str()) != 0) {
    int e = errno;
    unlink_at(AT_FDCWD, tmp.c_str());
    errno = e;
    return false;
  }
  return true;
}

bool append_file(const std::string &path, std::string_view text) {
  Fd fd(open_at(AT_FDCWD, path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644));
  if (!fd.valid()) return false;
  ssize_t n = write(fd.get(), text.data(), text.size());
  return n == static_cast<ssize_t>(text.size());
}

bool make_dirs(const std::string &path, unsigned mode) {
  if (path.empty()) return false;
  for (std::size_t pos = 1; pos <= path.size(); ++pos) {
    if (pos != path.size() && path[pos] != '/') continue;
    std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return false;
  }
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

namespace {

bool same_object(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The name under which the directory open on `dir_fd` holds `child`: first
// by the inode number its entries carry, then, where a mount hides the
// entry's own number, by each directory's stat.
bool name_in(int dir_fd, const struct stat &child, std::string &name) {
  for (bool by_stat : {false, true}) {
    Fd list(open_at(dir_fd, ".", O_RDONLY | O_DIRECTORY));
    DIR *d = list.valid() ? fdopendir(list.get()) : nullptr;
    if (d == nullptr) return false;
    (void)list.release();  // the stream owns it now
    struct stat st;
    while (const dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
      if (!by_stat && e->d_ino != child.st_ino) continue;
      if (fstatat(dir_fd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && same_object(st, child)) {
        name = e->d_name;
        closedir(d);
        return true;
      }
    }
    closedir(d);
  }
  errno = ENOENT;
  return false;
}

// Deep directories named lately, so that a request on a directory climbs
// one level to its parent's name instead of all the way to "/". A name is
// used only after checking that it still leads to the same directory.
class ClimbedNames {
 public:
  std::string find(const struct stat &dir) {
    auto it = names_.find(key(dir));
    if (it == names_.end()) return {};
    const AtPath at = at_path(it->second);
    struct stat st;
    if (fstatat(at.dirfd(), at.rest.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !same_object(st, dir)) {
      names_.erase(it);
      return {};
    }
    return it->second;
  }
  void remember(const struct stat &dir, const std::string &path) {
    if (names_.size() >= kMaxNames) names_.clear();
    names_[key(dir)] = path;
  }

 private:
  static constexpr std::size_t kMaxNames = 4096;
  static std::pair<dev_t, ino_t> key(const struct stat &st) { return {st.st_dev, st.st_ino}; }
  std::map<std::pair<dev_t, ino_t>, std::string> names_;
};

// The path of the directory open on `fd`, from its ".." entries up to "/"
// or to a directory named lately.
std::string climbed_path(int fd) {
  thread_local ClimbedNames climbed;
  Fd cur(open_at(fd, ".", O_RDONLY | O_DIRECTORY));
  struct stat start_st, cur_st;
  if (!cur.valid() || fstat(cur.get(), &cur_st) != 0) return {};
  start_st = cur_st;
  std::string out = climbed.find(cur_st);
  if (!out.empty()) return out;
  std::vector<std::string> names;
  for (;;) {
    Fd up(open_at(cur.get(), "..", O_RDONLY | O_DIRECTORY));
    struct stat up_st;
    if (!up.valid() || fstat(up.get(), &up_st) != 0) return {};
    if (same_object(up_st, cur_st)) break;
    std::string name;
    if (!name_in(up.get(), cur_st, name)) return {};
    names.push_back(std::move(name));
    out = climbed.find(up_st);
    if (!out.empty()) break;
    cur = std::move(up);
    cur_st = up_st;
  }
  for (auto it = names.rbegin(); it != names.rend(); ++it) out += "/" + *it;
  if (out.empty()) out = "/";
  climbed.remember(start_st, out);
  return out;
}

}  // namespace

int AtPath::dirfd() const {
  return dir.valid() ? dir.get() : AT_FDCWD;
}

AtPath at_path(const std::string &abs) {
  AtPath out;
  std::size_t start = 0;
  while (abs.size() - start >= PATH_MAX) {
    const std::size_t cut = abs.rfind('/', start + PATH_MAX - 1);
    if (cut == std::string::npos || cut <= start) break;  // one name too long: the kernel says so
    const std::string part = abs.substr(start, cut - start);
    Fd next(open_at(out.dirfd(), part.empty() ? "/" : part.c_str(), O_PATH | O_DIRECTORY));
    if (!next.valid()) break;
    out.dir = std::move(next);
    start = cut + 1;
  }
  out.rest = abs.substr(start);
  return out;
}

std::string fd_path(int fd) {
  char link[64];
  char target[PATH_MAX];
  (void)std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target);
  if ((n < 0 && errno == ENAMETOOLONG) || (n > 0 && static_cast<std::size_t>(n) >= sizeof target)) {
    std::string climbed = climbed_path(fd);
    if (climbed.empty()) errno = ENAMETOOLONG;
    return climbed;
  }
  if (n <= 0) return {};
  std::string out(target, static_cast<std::size_t>(n));
  constexpr std::string_view kDeleted = " (deleted)";
  if (out.size() > kDeleted.size() && out.ends_with(kDeleted)) {
    out.resize(out.size() - kDeleted.size());
  }
  return out;
}

}  // namespace kxsim::sys
