// One request seen by the simulator, as fault rules match it and as the
// request log writes it.
#pragma once

#include <cstdint>
#include <string>

namespace kxsim {

enum class Kind { kDmig, kIoctl, kOpen, kUnlink, kDevice, kStale };

const char *kind_name(Kind k);

struct RequestInfo {
  Kind kind = Kind::kIoctl;
  std::uint64_t code = 0;
  std::string object = "-";  // absolute path of the object, or "-"
  std::string alias;         // the path as the caller gave it, when it differs
  std::string name;          // attribute or representation name, if any
  std::string fields;        // further " key=value" fields for the log
  void add(const std::string &key, const std::string &value) { fields += " " + key + "=" + value; }
};

// "EIO" for EIO, the number in decimal for an errno without a name here.
std::string errno_name(int err);
// Accepts a name ("ENODATA") or a decimal number; -1 when unknown.
int errno_from_name(const std::string &text);

}  // namespace kxsim
