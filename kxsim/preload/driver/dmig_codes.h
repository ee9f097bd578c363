// The control channel's frame: its version, every request code with the
// payload size the driver copies, and the path-to-handle payload offsets.
// Written here from the driver's tables, never from the client library's
// headers; a test holds the two against each other.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kxsim {

inline constexpr std::int16_t kDmigVersion = 6;

// The request codes and their payload sizes; a frame whose bufsize differs
// from the table is refused, as the driver copies exactly this much.
struct DmigCode {
  std::int32_t func;
  std::uint32_t size;
};
inline constexpr DmigCode kCodes[] = {
    {1, 256}, {2, 264}, {3, 8},   {4, 16},  {5, 264}, {7, 1112}, {9, 96},    {10, 32},   {15, 88},
    {16, 16}, {17, 16}, {18, 32}, {21, 24}, {22, 32}, {37, 24},  {38, 1256}, {39, 1040}, {40, 40},
};

// Path to handle payload.
inline constexpr std::size_t kP2hFlags = 76, kP2hLen = 80, kP2hPath = 84, kP2hPathMax = 1024;

}  // namespace kxsim
