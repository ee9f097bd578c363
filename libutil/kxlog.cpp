// Default log and debug hooks: one tagged line to standard error per call.
#include "libutil/kxlog.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string_view>

namespace {

constexpr std::array<std::string_view, 4> kLevelTags = {"INFO", "NOTICE", "WARNING", "ERROR"};
constexpr size_t kLineStackSize = 1024;

// Write the whole line, retrying short writes and interruptions.
void write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(STDERR_FILENO, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;  // nowhere left to report to
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

// Format "<prefix>: <text>\n" into one buffer so that the line reaches the
// descriptor in a single write. Long lines get a heap buffer.
void emit_line(const char *prefix, const char *format, va_list ap) {
  const int saved_errno = errno;  // the caller may be reporting errno
  char head[64];
  int head_len = std::snprintf(head, sizeof head, "%s: ", prefix);
  if (head_len < 0) head_len = 0;
  if (static_cast<size_t>(head_len) >= sizeof head) head_len = sizeof head - 1;

  va_list copy;
  va_copy(copy, ap);
  const int body_len = format != nullptr ? std::vsnprintf(nullptr, 0, format, copy) : 0;
  va_end(copy);
  if (body_len < 0) {
    errno = saved_errno;
    return;
  }

  // head + body + newline + terminator
  const size_t need = static_cast<size_t>(head_len) + static_cast<size_t>(body_len) + 2;
  char stack_buf[kLineStackSize];
  std::unique_ptr<char[]> heap_buf;
  char *line = stack_buf;
  if (need > sizeof stack_buf) {
    heap_buf.reset(new (std::nothrow) char[need]);
    if (!heap_buf) {
      errno = saved_errno;
      return;
    }
    line = heap_buf.get();
  }
  std::string_view head_view(head, static_cast<size_t>(head_len));
  head_view.copy(line, head_view.size());
  size_t len = head_view.size();
  if (format != nullptr) {
    (void)std::vsnprintf(line + len, need - len, format, ap);
    len += static_cast<size_t>(body_len);
  }
  if (len == 0 || line[len - 1] != '\n') line[len++] = '\n';
  write_all(std::string_view(line, len));
  errno = saved_errno;
}

}  // namespace

extern "C" {

unsigned char facilities[KXFS_NFACILITIES] = {};

void __kxfs_logfn_default(int level, const char *format, ...) {
  char tag[16];
  const char *prefix = tag;
  if (level >= 0 && static_cast<size_t>(level) < kLevelTags.size()) {
    prefix = kLevelTags[static_cast<size_t>(level)].data();
  } else {
    (void)std::snprintf(tag, sizeof tag, "LOG%d", level);
  }
  va_list ap;
  va_start(ap, format);
  emit_line(prefix, format, ap);
  va_end(ap);
}

void __kxfs_debugfn_default(int level, const char *format, ...) {
  char prefix[24];
  (void)std::snprintf(prefix, sizeof prefix, "DEBUG%d", level);
  va_list ap;
  va_start(ap, format);
  emit_line(prefix, format, ap);
  va_end(ap);
}

kxfs_logfn_t __kxfs_logfn = __kxfs_logfn_default;
kxfs_logfn_t __kxfs_debugfn = __kxfs_debugfn_default;

void kxfs_write_log(int level, const char *text) {
  __kxfs_logfn(level, "%s", text != nullptr ? text : "");
}

}  // extern "C"
