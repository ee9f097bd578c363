// Debug traces of the policy library, switched per facility byte (kxlog.h).
#pragma once

#include "libutil/kxlog.h"

#define VDPOL_TRACE(facility, bit, ...)                                      \
  do {                                                                       \
    if ((facilities[facility] & (bit)) != 0) __kxfs_debugfn(0, __VA_ARGS__); \
  } while (0)
#define VDPOL_STORE_TRACE(...) VDPOL_TRACE(::vdpol::kFacStore, ::vdpol::kTraceStore, __VA_ARGS__)

namespace vdpol {

// Debug traces: the store and inheritance trace on facility 9, the API on
// the policy library's own facility byte.
constexpr int kFacStore = 9;
constexpr unsigned char kTraceStore = 0x10;
constexpr unsigned char kTraceRecord = 0x1;
constexpr unsigned char kTraceApi = 0x2;

}  // namespace vdpol
