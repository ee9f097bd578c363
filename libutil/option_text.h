// Text helpers shared by the option value parsers and parse_option; internal
// to libutil and not installed.
#pragma once

#include <strings.h>

#include <climits>
#include <cstddef>
#include <string_view>

namespace kx::option_text {

// Lengths handed to "%.*s" must fit an int; texts that long are cut.
inline int PrintLen(size_t n) {
  return n > INT_MAX ? INT_MAX : static_cast<int>(n);
}

inline bool EqualNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

}  // namespace kx::option_text
