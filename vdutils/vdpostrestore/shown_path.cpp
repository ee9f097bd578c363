// Paths as the tool prints them.
#include "shown_path.h"

#include <cstdio>
#include <cstring>

namespace {

bool is_continuation(unsigned char c) {
  return (c & 0xc0) == 0x80;
}

// The length of the well-formed UTF-8 sequence at `p` (shortest form, no
// surrogates, at most U+10FFFF), or 0 when there is none.
std::size_t utf8_sequence(const unsigned char *p) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  if (c >= 0xc2 && c <= 0xdf) return is_continuation(p[1]) ? 2 : 0;
  unsigned char low = 0x80, high = 0xbf;  // bounds of the second byte
  std::size_t len = 0;
  if (c >= 0xe0 && c <= 0xef) {
    len = 3;
    if (c == 0xe0) low = 0xa0;   // no overlong forms
    if (c == 0xed) high = 0x9f;  // no surrogates
  } else if (c >= 0xf0 && c <= 0xf4) {
    len = 4;
    if (c == 0xf0) low = 0x90;
    if (c == 0xf4) high = 0x8f;
  } else {
    return 0;
  }
  if (p[1] < low || p[1] > high) return 0;
  for (std::size_t i = 2; i < len; ++i) {
    if (!is_continuation(p[i])) return 0;
  }
  return len;
}

bool is_control(unsigned char c) {
  return c < 0x20 || c == 0x7f;
}

// A path that a reader of the log could not take back exactly as it is:
// one with a control byte (a line break would even split its line), one
// that is not UTF-8, or one that would read as quoted.
bool needs_quoting(const char *path) {
  if (std::strncmp(path, "$'", 2) == 0) return true;
  const auto *p = reinterpret_cast<const unsigned char *>(path);
  while (*p != '\0') {
    const std::size_t len = utf8_sequence(p);
    if (len == 0 || (len == 1 && is_control(*p))) return true;
    p += len;
  }
  return false;
}

void append_escape(std::string &out, unsigned char c) {
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\'':
      out += "\\'";
      return;
    default:
      break;
  }
  if (is_control(c) || c >= 0x80) {
    char hex[5];
    (void)std::snprintf(hex, sizeof hex, "\\x%02x", c);
    out += hex;
  } else {
    out += static_cast<char>(c);
  }
}

}  // namespace

std::string shell_quote(const char *path) {
  std::string out = "$'";
  const auto *p = reinterpret_cast<const unsigned char *>(path);
  while (*p != '\0') {
    const std::size_t len = utf8_sequence(p);
    if (len > 1) {
      out.append(reinterpret_cast<const char *>(p), len);  // a character, kept as it is
      p += len;
    } else {
      append_escape(out, *p++);
    }
  }
  return out + "'";
}

ShownPath::ShownPath(const char *path) : path_(path) {
  if (needs_quoting(path)) quoted_ = shell_quote(path);
}
