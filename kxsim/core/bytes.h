// Loading and storing integers at byte offsets of a driver payload.
// Payloads are described as tables of offsets, so they are read and written
// through these helpers rather than through mirrored structs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kxsim {

// A caller's payload: base address and the number of bytes it holds.
struct Payload {
  unsigned char *base;
  std::size_t size;

  bool fits(std::size_t off, std::size_t len) const { return off <= size && len <= size - off; }
  unsigned char *at(std::size_t off) const { return base + off; }
};

// Native byte order (the frame and most payloads).
template <typename T>
T load(const unsigned char *base, std::size_t off) {
  static_assert(std::is_integral_v<T>);
  T v;
  std::memcpy(&v, base + off, sizeof v);
  return v;
}

template <typename T>
void store(unsigned char *base, std::size_t off, T v) {
  static_assert(std::is_integral_v<T>);
  std::memcpy(base + off, &v, sizeof v);
}

// Big-endian fields (the handle's length, generation and inode).
template <typename T>
T load_be(const unsigned char *base, std::size_t off) {
  static_assert(std::is_unsigned_v<T>);
  T v = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) v = static_cast<T>((v << 8) | base[off + i]);
  return v;
}

template <typename T>
void store_be(unsigned char *base, std::size_t off, T v) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = sizeof(T); i-- > 0;) {
    base[off + i] = static_cast<unsigned char>(v & 0xFFu);
    if constexpr (sizeof(T) > 1) v = static_cast<T>(v >> 8);
  }
}

}  // namespace kxsim
