// Byte-offset access to driver payloads (C++ only, not installed).
//
// Payloads are plain byte arrays whose layout is the driver's: native-order
// fields are copied with memcpy (no aliasing or alignment assumptions),
// big-endian handle fields are assembled byte by byte.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kxdmapi {

template <typename T>
inline void put_native(unsigned char *buf, size_t offset, T value) {
  std::memcpy(buf + offset, &value, sizeof value);
}

template <typename T>
inline T get_native(const unsigned char *buf, size_t offset) {
  T value;
  std::memcpy(&value, buf + offset, sizeof value);
  return value;
}

inline uint64_t get_be(const unsigned char *buf, size_t offset, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value = (value << 8) | buf[offset + i];
  return value;
}

inline void put_be(unsigned char *buf, size_t offset, size_t width, uint64_t value) {
  for (size_t i = width; i > 0; --i) {
    buf[offset + i - 1] = static_cast<unsigned char>(value & 0xFFu);
    value >>= 8;
  }
}

// Path-to-handle payload (request 7, and ioctl 0x416 on a descriptor).
namespace p2h {
constexpr size_t kHandle = 0;    // 64 bytes out
constexpr size_t kFd = 72;       // 32-bit descriptor slot
constexpr size_t kFlags = 76;    // 32-bit flags
constexpr size_t kPathLen = 80;  // 32-bit length without the NUL
constexpr size_t kPath = 84;     // up to 1,025 bytes
}  // namespace p2h

// Length of the handle a driver reply holds: big-endian bytes 8-9 plus 10.
inline size_t reply_handle_len(const unsigned char *buf) {
  return static_cast<size_t>(get_be(buf, 8, 2)) + 10;
}

// The reply's handle length in *len, or false with errno EIO when a handle
// record cannot hold it: such a reply is the driver's fault, not ours.
inline bool reply_handle_fits(const unsigned char *buf, size_t max, size_t *len) {
  *len = reply_handle_len(buf);
  if (*len <= max) return true;
  errno = EIO;
  return false;
}

// A request's result as 0, or -1 with errno. An ioctl may return any
// non-negative number; a driver that answers other than 0 or -1 left no errno
// to report, and callers take every non-zero result for a failure.
inline int request_result(int result) {
  if (result == 0 || result == -1) return result;
  errno = EIO;
  return -1;
}

}  // namespace kxdmapi
