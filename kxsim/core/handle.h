// The driver's file and file-system handles, byte for byte:
//   0..7   fsid, host byte order
//   8..9   number of bytes after this field, big-endian (14 in a file handle)
//   10..11 zero
//   12..15 generation, big-endian
//   16..23 inode number AND 0x7F807FFFFFFFFFFF, big-endian
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace kxsim {

inline constexpr std::size_t kFileHandleLen = 24;
inline constexpr std::size_t kMaxHandleLen = 64;
inline constexpr std::uint64_t kInodeMask = 0x7F807FFFFFFFFFFFULL;
// Bytes 16-23 of a handle read as a host-order value equal to this name the
// mount point itself.
inline constexpr std::uint64_t kRootRawKey = 2;

struct HandleFields {
  std::uint64_t fsid = 0;
  std::uint64_t ino = 0;  // as stored (masked)
  std::uint32_t generation = 0;
  bool is_fs_handle = false;
  bool names_root = false;  // raw bytes 16-23 read 2
};

// Writes a 24-byte file handle into out (at least 24 bytes).
void make_file_handle(unsigned char *out, std::uint64_t fsid, std::uint64_t ino,
                      std::uint32_t generation);

// Takes a handle of len bytes apart; nullopt when it is not a valid
// file-system (8 bytes) or file handle.
std::optional<HandleFields> crack_handle(const unsigned char *h, std::size_t len);

// Upper-case hexadecimal of a 24-byte handle, as in "__KXFS_Handle.<HEX>".
std::string file_handle_hex(std::uint64_t fsid, std::uint64_t ino, std::uint32_t generation);

}  // namespace kxsim
