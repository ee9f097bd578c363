// Paths as the tool prints them.
#include "shown_path.h"

#include <cstdio>
#include <cstring>

std::string shell_quote(const char *path) {
  std::string out = "$'";
  for (const char *p = path; *p != '\0'; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    switch (c) {
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\'':
        out += "\\'";
        break;
      default:
        if (c < 0x20 || c == 0x7f) {
          char hex[5];
          (void)std::snprintf(hex, sizeof hex, "\\x%02x", c);
          out += hex;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "'";
}

ShownPath::ShownPath(const char *path) : path_(path) {
  if (std::strpbrk(path, "\n\r") != nullptr) quoted_ = shell_quote(path);
}
