#include "kxsim/core/handle.h"

#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/core/hex.h"

namespace kxsim {

void make_file_handle(unsigned char *out, std::uint64_t fsid, std::uint64_t ino,
                      std::uint32_t generation) {
  std::memset(out, 0, kFileHandleLen);
  store<std::uint64_t>(out, 0, fsid);
  store_be<std::uint16_t>(out, 8, static_cast<std::uint16_t>(kFileHandleLen - 10));
  store_be<std::uint32_t>(out, 12, generation);
  store_be<std::uint64_t>(out, 16, ino & kInodeMask);
}

std::optional<HandleFields> crack_handle(const unsigned char *h, std::size_t len) {
  if (!h || len < 8 || len > kMaxHandleLen) return std::nullopt;
  unsigned char work[kMaxHandleLen] = {};
  std::memcpy(work, h, len);
  HandleFields f;
  f.fsid = load<std::uint64_t>(work, 0);
  if (f.fsid == 0) return std::nullopt;
  if (len == 8) {
    f.is_fs_handle = true;
    return f;
  }
  if (load_be<std::uint16_t>(work, 8) != len - 10 || load<std::uint16_t>(work, 10) != 0) {
    return std::nullopt;
  }
  f.generation = load_be<std::uint32_t>(work, 12);
  f.ino = load_be<std::uint64_t>(work, 16);
  f.names_root = load<std::uint64_t>(work, 16) == kRootRawKey;
  return f;
}

std::string file_handle_hex(std::uint64_t fsid, std::uint64_t ino, std::uint32_t generation) {
  unsigned char h[kFileHandleLen];
  make_file_handle(h, fsid, ino, generation);
  return to_hex(h, sizeof h, true);
}

}  // namespace kxsim
