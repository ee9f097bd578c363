// The "BFST" data-management attribute that the policy engine keeps on the
// files and directories it governs: 32 bytes, multi-byte fields big-endian.
// The tool reads two fields: blk_key (bytes 0-7), the key of a directory's
// policy, and blk_flags (bytes 12-13), where 0x0001 or 0x0400 says that the
// file's data is stored elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kxdmapi/kxdmapi.h"

inline constexpr dm_attrname_t kBfstAttrName{{'B', 'F', 'S', 'T'}};

struct event_attr_t {
  unsigned char raw[32] = {};
};

inline constexpr uint16_t kBlkFlagsStoredElsewhere = 0x0401;

// A value shorter than the field the reader needs says nothing about it:
// its missing bytes would read as zeros, a key of 0 or no stored copy.
inline constexpr std::size_t kBlkKeyEnd = 8;
inline constexpr std::size_t kBlkFlagsEnd = 14;

// The reason printed for such a value.
inline std::string too_short_reason(std::size_t len) {
  return "value of " + std::to_string(len) + (len == 1 ? " byte" : " bytes") + " is too short";
}

constexpr uint64_t big_endian_field(const event_attr_t &attr, std::size_t offset,
                                    std::size_t size) {
  uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) value = (value << 8) | attr.raw[offset + i];
  return value;
}

constexpr uint64_t blk_key(const event_attr_t &attr) {
  return big_endian_field(attr, 0, 8);
}

constexpr uint16_t blk_flags(const event_attr_t &attr) {
  return static_cast<uint16_t>(big_endian_field(attr, 12, 2));
}
