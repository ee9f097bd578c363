// Bounded formatting: a non-empty buffer always ends up terminated, whatever
// vsnprintf made of the format.
#include "libutil/snprintf.h"

#include <cstdio>

extern "C" {

int KxVsnprintf(char *buf, size_t size, const char *format, va_list ap) {
  if (format == nullptr) return -1;
  if (buf == nullptr && size != 0) return -1;
  const int n = std::vsnprintf(buf, size, format, ap);
  if (buf == nullptr) return n;
  if (n >= 0 && static_cast<size_t>(n) < size) return n;  // vsnprintf terminated it
  if (size != 0) buf[size - 1] = '\0';
  return n;
}

int KxSnprintf(char *buf, size_t size, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  const int n = KxVsnprintf(buf, size, format, ap);
  va_end(ap);
  return n;
}

}  // extern "C"
