// Test support: the suite's log hook routed into "<level>:<text>" lines for
// the lifetime of one LogCapture (a fixture member); the previous hook comes
// back on destruction.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "libutil/kxlog.h"

namespace vdtest {

class LogCapture {
 public:
  LogCapture() : saved_(__kxfs_logfn) {
    Lines().clear();
    __kxfs_logfn = Record;
  }
  ~LogCapture() { __kxfs_logfn = saved_; }
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  static std::vector<std::string> &Lines() {
    static std::vector<std::string> lines;
    return lines;
  }

 private:
  static void Record(int level, const char *format, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    Lines().push_back(std::to_string(level) + ":" + buf);
  }

  kxfs_logfn_t saved_;
};

}  // namespace vdtest
