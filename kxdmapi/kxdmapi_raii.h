// Small owners used inside the library (C++ only, not installed).
//
// UniqueFd owns one descriptor and closes it, keeping errno, unless released.
// It is move-free on purpose: an owner never changes hands inside the
// library. Mutexes are held with kx::MutexLock from libutil/mutex.h.
#pragma once

#include <errno.h>
#include <unistd.h>

namespace kxdmapi {

class UniqueFd {
 public:
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  // Closing never changes the errno a caller is about to report.
  void reset() {
    if (fd_ >= 0) {
      int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = -1;
  }

 private:
  int fd_;
};

}  // namespace kxdmapi
