/* The owner of a handle that the library allocated (C++ only): freed with
 * dm_handle_free on scope exit. Pass &hanp and &hlen to the call that
 * makes the handle. */
#pragma once

#include <stddef.h>

#include "kxdmapi/kxdmapi_handles.h"

namespace kxdmapi {

struct DmHandle {
  void *hanp = nullptr;
  size_t hlen = 0;

  DmHandle() = default;
  DmHandle(const DmHandle &) = delete;
  DmHandle &operator=(const DmHandle &) = delete;
  ~DmHandle() { reset(); }
  void reset() {
    if (hanp != nullptr) dm_handle_free(hanp, hlen);
    hanp = nullptr;
    hlen = 0;
  }
};

}  // namespace kxdmapi
