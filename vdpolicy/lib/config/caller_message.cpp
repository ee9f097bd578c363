#include "vdpolicy/lib/config/caller_message.h"

#include <cstdarg>

#include "libutil/snprintf.h"

namespace vdpol {

void vwrite_message(char *buf, std::size_t len, const char *format, va_list ap) {
  if (buf != nullptr && len > 0) KxVsnprintf(buf, len, format, ap);
}

void write_message(char *buf, std::size_t len, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vwrite_message(buf, len, format, ap);
  va_end(ap);
}

int CallerMessage::fail(int rc, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vwrite_message(text, sizeof text, format, ap);
  va_end(ap);
  publish();
  return rc;
}

void CallerMessage::publish() const {
  write_message(buf, len, "%s", text);
}

}  // namespace vdpol
