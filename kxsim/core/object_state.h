// What the driver keeps for one file, directory or file system: the event
// mask, the data-management attributes and the external representations.
// Stored as a small text file (see state_store.h):
//   born <stamp>
//   events 0x<mask>
//   attr <NAME> <hex value or ->
//   rep <NAME> <entry flags> <offset> <length> <hex value or ->
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "kxsim/core/hex.h"

namespace kxsim {

inline constexpr std::size_t kMaxAttrName = 8;
inline constexpr std::size_t kMaxAttrValue = 128;
inline constexpr std::size_t kMaxRepName = 31;
inline constexpr std::size_t kMaxRepValue = 65536;

struct ExtRep {
  std::uint32_t entry_flags = 0;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  Bytes value;
};

struct ObjectState {
  std::string born;  // identity stamp of the file the state belongs to
  std::uint64_t events = 0;
  std::map<std::string, Bytes> attrs;
  std::map<std::string, ExtRep> reps;

  bool empty() const { return events == 0 && attrs.empty() && reps.empty(); }
};

// Names are stored as words of the state file: 1..max printable characters
// without blanks.
bool valid_state_name(std::string_view name, std::size_t max);

bool parse_object_state(std::string_view text, ObjectState &out, std::string &error);
std::string format_object_state(const ObjectState &st);

}  // namespace kxsim
