// kxsim's state files are text, one record a line; a refused line is named
// by its number, so that a hand-edited file says where it went wrong.
#pragma once

#include <string>
#include <string_view>

namespace kxsim {

// Calls parse_line(line, why) for each line of text, in order. The first
// line it refuses ends the walk: error is "line N: " and its reason.
template <typename ParseLine>
bool parse_lines(std::string_view text, std::string &error, ParseLine parse_line) {
  int lineno = 0;
  while (!text.empty()) {
    const std::size_t nl = text.find('\n');
    const std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view() : text.substr(nl + 1);
    ++lineno;
    std::string why;
    if (!parse_line(line, why)) {
      error = "line " + std::to_string(lineno) + ": " + why;
      return false;
    }
  }
  return true;
}

}  // namespace kxsim
