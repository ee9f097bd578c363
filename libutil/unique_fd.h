// The one descriptor owner of the suite (C++ only): closes on scope exit,
// and closing never changes the errno a caller is about to report.
#pragma once

#include <errno.h>
#include <unistd.h>

#include <utility>

namespace kx {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd &) = delete;
  UniqueFd &operator=(const UniqueFd &) = delete;
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  explicit operator bool() const { return valid(); }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace kx
