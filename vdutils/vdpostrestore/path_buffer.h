// The path of the entry being examined, in one bounded buffer.
//
// The walk names every entry by its full path in messages and in the log,
// built as "<directory>/<name>". One buffer serves the whole walk: a level
// appends its entry's name and cuts it off again, so the memory used does
// not grow with the size of the tree. Anything that would not fit, with its
// terminator, in kPathBufferSize bytes is refused and the buffer is left as
// it was.
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

#include "settings.h"

class PathBuffer {
 public:
  // False when `text` does not fit; the buffer is then unchanged.
  bool assign(std::string_view text) {
    if (text.size() >= sizeof buf_) return false;
    std::memcpy(buf_, text.data(), text.size());
    len_ = text.size();
    buf_[len_] = '\0';
    return true;
  }

  // Appends "/" and `name`. False when the result does not fit.
  bool append_child(std::string_view name) {
    if (name.size() + 1 >= sizeof buf_ - len_) return false;
    buf_[len_] = '/';
    std::memcpy(buf_ + len_ + 1, name.data(), name.size());
    len_ += name.size() + 1;
    buf_[len_] = '\0';
    return true;
  }

  // Cuts the path back to an earlier length (from size()).
  void truncate(std::size_t len) {
    if (len < len_) {
      len_ = len;
      buf_[len_] = '\0';
    }
  }

  std::size_t size() const { return len_; }
  const char *c_str() const { return buf_; }

 private:
  char buf_[kPathBufferSize] = {};
  std::size_t len_ = 0;
};
