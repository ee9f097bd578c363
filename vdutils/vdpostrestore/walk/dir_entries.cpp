#include "walk/dir_entries.h"

#include <dirent.h>

#include <cerrno>
#include <cstddef>

namespace {
// As much as the C library's directory streams read at once.
constexpr std::size_t kBufferSize = 32768;
}  // namespace

DirEntries::DirEntries(kx::UniqueFd fd) : fd_(std::move(fd)), buffer_(new char[kBufferSize]) {}

const char *DirEntries::next() {
  if (offset_ >= filled_) {
    const ssize_t n = getdents64(fd_.get(), buffer_.get(), kBufferSize);
    if (n <= 0) {
      if (n == 0) errno = 0;
      return nullptr;
    }
    filled_ = static_cast<std::size_t>(n);
    offset_ = 0;
  }
  // new[] aligns for any fundamental type, and the kernel keeps every
  // record's length a multiple of 8.
  const auto *entry = reinterpret_cast<const struct dirent64 *>(buffer_.get() + offset_);
  offset_ += entry->d_reclen;
  ino_ = entry->d_ino;
  return entry->d_name;
}
