// Test support: a DMAPI handle owned by the test, freed on scope exit.
#pragma once

#include <cerrno>
#include <cstring>
#include <string>

#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi.h"

namespace vdtest {

struct OwnedHandle : kxdmapi::DmHandle {
  // dm_path_to_handle into this; "" on success, else the error text.
  std::string Resolve(const std::string &path) {
    reset();
    return dm_path_to_handle(path.c_str(), &hanp, &hlen) == 0 ? "" : strerror(errno);
  }
  std::string Hex() const {
    std::string text(2 * hlen + 1, '\0');
    dm_binary_to_hex(hanp, hlen, text.data());
    text.resize(2 * hlen);
    return text;
  }
  // dm_handle_to_path (relative to the file-system root), or "ERROR <text>".
  std::string Path() const {
    char path[DM_PATH_BUFSIZE];
    size_t needed = 0;
    if (dm_handle_to_path(nullptr, 0, hanp, hlen, sizeof path, path, &needed) != 0)
      return std::string("ERROR ") + strerror(errno);
    return path;
  }
};

}  // namespace vdtest
