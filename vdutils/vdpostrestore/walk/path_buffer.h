// The path of the entry being examined.
//
// The walk names every entry by its full path in messages and in the log,
// built as "<directory>/<name>". One buffer serves the whole walk: a level
// appends its entry's name and cuts it off again, so the memory used grows
// with the depth of the tree, not with its size. There is no length limit:
// requests that take paths are made by descriptor where a path would be too
// long for them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

class PathBuffer {
 public:
  void assign(std::string_view text) { path_.assign(text); }

  // Appends "/" and `name`.
  void append_child(std::string_view name) {
    path_ += '/';
    path_ += name;
  }

  // Cuts the path back to an earlier length (from size()).
  void truncate(std::size_t len) {
    if (len < path_.size()) path_.resize(len);
  }

  std::size_t size() const { return path_.size(); }
  const char *c_str() const { return path_.c_str(); }

 private:
  std::string path_;
};
