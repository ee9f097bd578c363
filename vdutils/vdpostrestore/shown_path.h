// Paths as the tool prints them. A path that holds a control byte (a line
// feed would split one line into two and could name a file that was never
// touched), that is not valid UTF-8, or that begins with "$'" is written in
// shell quoting instead: $'...' with \n, \r, \t, \\, \' and \xHH for other
// control bytes and for bytes that are not part of a UTF-8 character, so
// that every line names exactly one file, can be parsed back into its exact
// bytes and can be pasted into a shell. Every other path is written exactly
// as it is.
#pragma once

#include <string>

// The printable form of `path`; an object lives to the end of the full
// expression it is made in: VPrintf("%s", ShownPath(p).c_str()).
class ShownPath {
 public:
  explicit ShownPath(const char *path);
  const char *c_str() const { return quoted_.empty() ? path_ : quoted_.c_str(); }

 private:
  const char *path_;
  std::string quoted_;  // empty when the path is shown as it is
};

// The quoted form, whatever the path holds.
std::string shell_quote(const char *path);
