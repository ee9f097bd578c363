// The log file: the record of every file that the run reported or removed.
#include "log_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "settings.h"

namespace {

bool report_write_failure() {
  ErrPrintf("Failed to write logfile %s: %s.\n", LogFileName, std::strerror(errno));
  return false;
}

// With -r a lost line would leave a removal unrecorded, so every write is
// pushed to the kernel and checked before the walk goes on.
bool push_if_removing() {
  if (Remove_Files && std::fflush(LogFile) != 0) return report_write_failure();
  return true;
}

}  // namespace

bool open_log_file() {
  LogFile = std::fopen(LogFileName, "we");
  if (LogFile == nullptr) {
    // The message has always named the default log; administrators' scripts
    // match it, so it stays so even when -f chose another file.
    ErrPrintf("Failed to open logfile %s: %s.\n", kDefaultLogFile, std::strerror(errno));
    return false;
  }
  // A failed write shows in the stream's error state, checked on flushing.
  (void)std::fprintf(LogFile,
                     "Files with no allocated blocks in non-managed directories under %s.\n"
                     "These files %s removed.\n\n",
                     Mount_Point, Remove_Files ? "were" : "were not");
  return push_if_removing();
}

bool log_reported_file(const char *path) {
  if (std::fputs(path, LogFile) == EOF || std::fputc('\n', LogFile) == EOF) {
    return report_write_failure();
  }
  return push_if_removing();
}

bool finish_log_file() {
  if (std::fflush(LogFile) != 0 || std::ferror(LogFile)) return report_write_failure();
  return true;
}
