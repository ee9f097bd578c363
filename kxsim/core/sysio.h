// File access for the simulator's own bookkeeping. Everything here goes to
// the kernel by raw system call, never through the C library's open, close
// or unlink: inside the preloaded library those names are our own wrappers,
// and calling them from internal work would recurse (and deadlock on the
// simulator's lock).
#pragma once

#include <string>
#include <string_view>

namespace kxsim::sys {

// Owns one descriptor; closes it by raw system call.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd &&o) noexcept : fd_(o.release()) {}
  Fd &operator=(Fd &&o) noexcept;
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  ~Fd();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_ = -1;
};

// -1 with errno on failure.
int open_at(int dirfd, const char *path, int flags, unsigned mode = 0);
int close_fd(int fd);
int unlink_at(int dirfd, const char *path, int flags = 0);

// Whole-file read; false with errno on failure (ENOENT when missing).
bool read_file(const std::string &path, std::string &out);

// Replaces the file's content atomically (temporary file and rename), so a
// concurrent reader in another process sees the old or the new text.
bool write_file_atomic(const std::string &path, std::string_view text);

// Appends with one write on an O_APPEND descriptor, so lines of several
// processes never interleave.
bool append_file(const std::string &path, std::string_view text);

// mkdir -p; true when the directory exists afterwards.
bool make_dirs(const std::string &path, unsigned mode = 0755);

// Target of /proc/self/fd/<fd>, without a " (deleted)" suffix. The kernel
// names nothing longer than PATH_MAX there; a directory that deep is named
// by climbing its ".." entries as getcwd does. Empty with errno on failure
// (ENAMETOOLONG for a deeper file that is not a directory).
std::string fd_path(int fd);

// An absolute path, which may be longer than the kernel takes in one call
// (PATH_MAX), as a directory descriptor on its way and the rest, which fits:
// pass dirfd() and rest to the *at() calls. A path that fits comes back
// whole, with AT_FDCWD.
struct AtPath {
  Fd dir;
  std::string rest;
  int dirfd() const;
};
AtPath at_path(const std::string &abs);

}  // namespace kxsim::sys
