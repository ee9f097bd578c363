// The entries of an open directory, read with getdents64 through its
// descriptor. A stream from fdopendir would cost three more system calls
// per directory (an fstat and two fcntl) that tell the walk nothing new:
// it has just opened the descriptor as a directory and checked it.
#pragma once

#include <cstddef>
#include <memory>

#include "libutil/unique_fd.h"

class DirEntries {
 public:
  explicit DirEntries(kx::UniqueFd fd);

  int fd() const { return fd_.get(); }
  // The next entry's name ("." and ".." included), valid until the next
  // call; nullptr at the end (errno 0) or on a failed read (errno set).
  const char *next();
  // The inode number of the entry that next() returned last.
  unsigned long long ino() const { return ino_; }

 private:
  kx::UniqueFd fd_;
  std::unique_ptr<char[]> buffer_;
  std::size_t filled_ = 0;
  std::size_t offset_ = 0;
  unsigned long long ino_ = 0;
};
