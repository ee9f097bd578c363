// The "BFST" attribute as the tool reads it (the record: vdpolicy/bfst_record.h):
// blk_key, the key of a directory's policy, and blk_flags, where
// BFST_FLAG_STORED or BFST_FLAG_OBJS_STORED says that the file's data is
// stored elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "kxdmapi/kxdmapi.h"
#include "vdpolicy/bfst_record.h"

inline constexpr dm_attrname_t kBfstAttrName{{'B', 'F', 'S', 'T'}};

struct event_attr_t {
  unsigned char raw[BFST_RECORD_SIZE] = {};
};

inline constexpr uint16_t kBlkFlagsStoredElsewhere = BFST_FLAG_STORED | BFST_FLAG_OBJS_STORED;

// The answer to one read of a "BFST": the open (of a file), then the read.
struct BfstRead {
  int open_errno = 0;  // not 0: the file could not be opened
  int read_errno = 0;  // not 0: the attribute could not be read
  std::size_t len = 0;
  event_attr_t attr;
};

// A value shorter than the field the reader needs says nothing about it:
// its missing bytes would read as zeros, a key of 0 or no stored copy.
inline constexpr std::size_t kBlkKeyEnd = BFST_KEY_END;
inline constexpr std::size_t kBlkFlagsEnd = BFST_FLAGS_END;

// The reason printed for such a value.
inline std::string too_short_reason(std::size_t len) {
  return "value of " + std::to_string(len) + (len == 1 ? " byte" : " bytes") + " is too short";
}

inline uint64_t blk_key(const event_attr_t &attr) {
  return bfst_key(attr.raw);
}

inline uint16_t blk_flags(const event_attr_t &attr) {
  return bfst_flags(attr.raw);
}
