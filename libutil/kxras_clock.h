// The clock of the per-client RAS throttle; internal to libutil and not
// installed.
#pragma once

#include <cstdint>

namespace kx::ras {

// Seconds since the epoch, as NeedPerClntRas compares them. Replaceable so
// that the hour between two events of a client can be stepped over in tests.
using ClockFn = uint32_t (*)();
extern ClockFn clock_seconds;

}  // namespace kx::ras
