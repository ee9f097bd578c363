// The value parsers of the option syntax: numbers, booleans, choices,
// strings and intervals, each reading at a cursor it advances.
#include <cstdio>
#include <cstring>

#include "libutil/option_parse.h"
#include "libutil/option_text.h"
#include "libutil/snprintf.h"

extern "C" const Boolstr_t Boolstr[BOOLSTR_COUNT] = {
    {"no", 0},   {"yes", 1}, {"off", 0}, {"on", 1}, {"false", 0},
    {"true", 1}, {"n", 0},   {"y", 1},   {"0", 0},  {"1", 1},
};

namespace {

using kx::option_text::EqualNoCase;
using kx::option_text::PrintLen;

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

int DigitValue(char c) {
  if (IsDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 99;
}

// Reads digits of one base; returns how many were read. Wraps on overflow.
size_t ReadDigits(const char *p, unsigned base, uint64_t *out) {
  size_t n = 0;
  uint64_t v = 0;
  for (int d; (d = DigitValue(p[n])) < static_cast<int>(base); ++n)
    v = v * base + static_cast<unsigned>(d);
  *out = v;
  return n;
}

// Seconds of one interval unit letter, or 0 if it is not one.
uint64_t UnitSeconds(char c) {
  switch (c) {
    case 'w':
      return 604800;
    case 'd':
      return 86400;
    case 'h':
      return 3600;
    case 'm':
      return 60;
    case 's':
      return 1;
    default:
      return 0;
  }
}

}  // namespace

extern "C" int parse_decimal(const char **cursor, uint64_t *out) {
  size_t n = ReadDigits(*cursor, 10, out);
  if (n == 0) return 0;
  *cursor += n;
  return 1;
}

extern "C" int parse_number(const char **cursor, uint64_t *out, const char **err_str) {
  *err_str = "";
  const char *p = *cursor;
  unsigned base = 10;
  if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && DigitValue(p[2]) < 16) {
    base = 16;
    p += 2;
  } else if (p[0] == '0') {
    base = 8;
  }
  uint64_t v = 0;
  size_t n = ReadDigits(p, base, &v);
  if (n == 0) return 0;
  p += n;
  unsigned shift = 0;
  switch (*p) {
    case '\0':
    case '\t':
    case ' ':
    case ',':
      break;
    case 'k':
    case 'K':
      shift = 10;
      break;
    case 'm':
    case 'M':
      shift = 20;
      break;
    case 'g':
    case 'G':
      shift = 30;
      break;
    default:
      *err_str = "Invalid unit multiplier (k/K/m/M/g/G allowed)";
      return 0;
  }
  if (shift != 0) ++p;  // whatever follows the unit is the caller's
  *out = v << shift;
  *cursor = p;
  return 1;
}

extern "C" int parse_boolean(const char **cursor, uint64_t *int_value) {
  for (const Boolstr_t &b : Boolstr) {
    size_t len = strlen(b.bs_name);
    if (strncasecmp(*cursor, b.bs_name, len) == 0) {
      *int_value = static_cast<uint64_t>(b.bs_value);
      *cursor += len;
      return 1;
    }
  }
  return 0;
}

extern "C" int parse_choice(const char **cursor, const char *choices, uint64_t *int_value) {
  std::string_view token(*cursor, strcspn(*cursor, ",="));
  std::string_view list(choices);
  if (!list.empty() && list.front() == '|') list.remove_prefix(1);
  uint64_t group = 0;
  size_t start = 0;
  for (size_t i = 0; i <= list.size(); ++i) {
    if (i < list.size() && list[i] != ',' && list[i] != '|') continue;
    if (EqualNoCase(list.substr(start, i - start), token)) {
      *int_value = group;
      *cursor += token.size();
      return 1;
    }
    if (i < list.size() && list[i] == '|') ++group;
    start = i + 1;
  }
  return 0;
}

extern "C" int parse_string(const char **cursor, char *str_value, size_t str_len,
                            const char **err_str) {
  *err_str = "";
  const char *begin = *cursor;
  const char *end = nullptr;
  size_t skip = 0;  // the closing quote
  if (*begin == '"') {
    ++begin;
    end = strchr(begin, '"');
    if (end == nullptr) {
      *err_str = "Unterminated string";
      return 0;
    }
    skip = 1;
  } else {
    // A value runs to the next comma; only without one does a line feed
    // end it (callers hand in one line at a time).
    end = strchr(begin, ',');
    if (end == nullptr) end = strchr(begin, '\n');
    if (end == nullptr) end = begin + strlen(begin);
  }
  size_t len = static_cast<size_t>(end - begin);
  if (str_value == nullptr || str_len == 0 || len > str_len - 1) {
    *err_str = "String option too long";
    return 0;
  }
  memcpy(str_value, begin, len);
  str_value[len] = '\0';
  *cursor = end + skip;
  return 1;
}

extern "C" int parse_interval(const char **cursor, uint64_t *out, char *err_msg,
                              size_t err_msg_sz) {
  const char *text = *cursor;
  size_t value_len = strcspn(text, ",=");
  uint64_t n = 0, total = 0;
  int state = 0;
  const char *reason = nullptr;
  size_t i = 0;
  while (i < value_len && reason == nullptr) {
    char c = text[i];
    if (c == ' ' || c == '\t') {
      ++i;
    } else if (IsDigit(c)) {
      if (state == 1 || state == 3 || state == 5) {
        reason = "unexpected digit(s)";
        break;
      }
      uint64_t v = 0;
      i += ReadDigits(text + i, 10, &v);
      if (state == 0) {
        n = v;
        state = 1;
      } else if (state == 2) {
        total += v;
        state = 3;
      } else {
        n = v;
        state = 5;
      }
    } else if (UnitSeconds(c) != 0) {
      if (state != 1 && state != 5) {
        reason = "unexpected w/d/h/m/s specifier";
        break;
      }
      total += n * UnitSeconds(c);
      state = 4;
      ++i;
    } else if (c == ':') {
      if (state != 1 && state != 3) {
        reason = "unexpected ':'";
        break;
      }
      if (state == 1) total = n;
      total *= 60;
      state = 2;
      ++i;
    } else {
      reason = "invalid character";
    }
  }
  if (reason == nullptr && state != 1 && state != 3 && state != 4)
    reason = "incomplete specification";
  if (reason != nullptr) {
    size_t shown = i < value_len ? i + 1 : value_len;  // with the offender
    if (err_msg != nullptr && err_msg_sz > 0)
      KxSnprintf(err_msg, err_msg_sz, "Bad time format: '%.*s' (offset %d): %s\n", PrintLen(shown),
                 text, PrintLen(shown), reason);
    *out = 0;
    return 0;
  }
  *out = state == 1 ? n : total;
  *cursor = text + value_len;
  return 1;
}
