/* Big-endian fields of on-disk and on-wire records (handles, "BFST"), read
 * and written byte by byte so that neither alignment nor host order
 * matters. */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* The width-byte (at most 8) big-endian number at buf + offset. */
static inline uint64_t kx_get_be(const unsigned char *buf, size_t offset, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = (value << 8) | buf[offset + i];
  return value;
}

/* Stores the low width bytes of value big-endian at buf + offset. */
static inline void kx_put_be(unsigned char *buf, size_t offset, size_t width, uint64_t value) {
  for (size_t i = width; i > 0; --i) {
    buf[offset + i - 1] = (unsigned char)(value & 0xFFu);
    value >>= 8;
  }
}
