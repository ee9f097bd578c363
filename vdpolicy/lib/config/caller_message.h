// The policy library's one way to fail with a message: the text goes to a
// caller-supplied buffer, which may be absent (null or 0 bytes) and is
// always cut to fit and NUL-terminated.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace vdpol {

// Formats into buf (len bytes); nothing when buf is null or len 0.
void write_message(char *buf, std::size_t len, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
void vwrite_message(char *buf, std::size_t len, const char *format, va_list ap)
    __attribute__((format(printf, 3, 0)));

// One failure message for a caller-supplied buffer (which may be absent)
// and for the failure's log line, which needs the text all the same.
struct CallerMessage {
  char text[1024] = "";
  char *buf;
  std::size_t len;

  CallerMessage(char *caller_buf, std::size_t caller_len) : buf(caller_buf), len(caller_len) {}
  // Formats the message, copies it to the caller and returns rc.
  int fail(int rc, const char *format, ...) __attribute__((format(printf, 3, 4)));
  // Copies text (set by someone else) to the caller.
  void publish() const;
};

}  // namespace vdpol
