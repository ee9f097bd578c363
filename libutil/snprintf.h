/* Bounded formatting that always terminates a non-empty buffer.
 *
 * KxVsnprintf(buf, size, format, ap) / KxSnprintf(buf, size, format, ...):
 *  - null format: returns -1, writes nothing;
 *  - non-zero size with a null buf: returns -1;
 *  - null buf with size 0: returns the length the output would need;
 *  - otherwise formats with vsnprintf; when the output was cut (or vsnprintf
 *    failed) buf[size - 1] is set to '\0'.
 * The result is vsnprintf's: the untruncated length, or negative on a
 * formatting error. Thread-safe; nothing is allocated.
 */
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

int KxVsnprintf(char *buf, size_t size, const char *format, va_list ap)
    __attribute__((format(printf, 3, 0)));
int KxSnprintf(char *buf, size_t size, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
