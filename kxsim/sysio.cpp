#include "kxsim/sysio.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string_view>

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

std::string fd_path(int fd) {
  char link[64];
  char target[4096];
  (void)std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target);
  if (n <= 0) return {};
  if (static_cast<std::size_t>(n) >= sizeof target) {
    errno = ENAMETOOLONG;
    return {};
  }
  std::string out(target, static_cast<std::size_t>(n));
  constexpr std::string_view kDeleted = " (deleted)";
  if (out.size() > kDeleted.size() && out.ends_with(kDeleted)) {
    out.resize(out.size() - kDeleted.size());
  }
  return out;
}

}  // namespace kxsim::sys
