// Table-driven option parsing: the value parsers, parse_option and the
// formatters that print values back in the same syntax.
#include "libutil/option_parse.h"

#include <strings.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "libutil/snprintf.h"

extern "C" const Boolstr_t Boolstr[BOOLSTR_COUNT] = {
    {"no", 0},   {"yes", 1}, {"off", 0}, {"on", 1}, {"false", 0},
    {"true", 1}, {"n", 0},   {"y", 1},   {"0", 0},  {"1", 1},
};

namespace {

// Lengths handed to "%.*s" must fit an int; texts that long are cut.
int PrintLen(size_t n) {
  return n > INT_MAX ? INT_MAX : static_cast<int>(n);
}

bool EqualNoCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

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

extern "C" int format_number(uint64_t value, char *buffer, size_t size) {
  const char *unit = "G";
  unsigned shift = 30;
  if (value & 0x3ffu) {
    unit = "", shift = 0;
  } else if (value & 0xffc00u) {
    unit = "K", shift = 10;
  } else if (value & 0x3ff00000u) {
    unit = "M", shift = 20;
  }
  return KxSnprintf(buffer, size, "%llu%s", static_cast<unsigned long long>(value >> shift), unit);
}

extern "C" int format_interval(uint64_t value, char *buffer, size_t size) {
  auto h = static_cast<unsigned long long>(value / 3600);
  auto m = static_cast<unsigned>(value % 3600 / 60);
  auto s = static_cast<unsigned>(value % 60);
  if (h == 0 && m == 0) return KxSnprintf(buffer, size, "%us", s);
  if (h == 0 && s == 0) return KxSnprintf(buffer, size, "%um", m);
  if (h == 0) return KxSnprintf(buffer, size, "%u:%02u", m, s);
  if (m == 0 && s == 0) {
    if (h % 24 == 0) return KxSnprintf(buffer, size, "%llud", h / 24);
    return KxSnprintf(buffer, size, "%lluh", h);
  }
  return KxSnprintf(buffer, size, "%llu:%02u:%02u", h, m, s);
}

extern "C" void parser_usage(const Option *table) {
  std::string placeholder;  // repeated for syntaxes without one of their own
  for (const Option *o = table; o != nullptr && o->m_name != nullptr; ++o) {
    if (o->m_silent != 0 || o->m_option == PARSE_OPTION_HIDDEN) continue;
    std::string_view name(o->m_name);
    size_t eq = name.find('=');
    std::string line;
    if (eq == std::string_view::npos) {
      line = name;
    } else {
      std::string_view syntax = name.substr(eq + 1);
      if (syntax == "%b")
        placeholder = "<boolean>";
      else if (syntax == "%d")
        placeholder = "<value>";
      else if (syntax == "%D")
        placeholder = "<value>[k|m|g]";
      else if (syntax == "%s")
        placeholder = "<string>";
      else if (!syntax.empty() && syntax.front() == '|')
        placeholder = syntax;
      line = std::string(name.substr(0, eq + 1)) + placeholder;
    }
    if (line.size() < 30)
      (void)fprintf(stderr, "  %-30s", line.c_str());
    else if (o->m_usage != nullptr)
      (void)fprintf(stderr, "  %s\n%-32s", line.c_str(), "");
    else
      (void)fprintf(stderr, "  %s", line.c_str());
    (void)fprintf(stderr, "%s\n", o->m_usage != nullptr ? o->m_usage : "");
  }
}

namespace {

// One call of parse_option: the keyword found at the cursor and where to
// write its message.
struct OptionRead {
  const char *keyword;  // start of the keyword
  size_t name_len;      // keyword length without '='
  char *err_msg;
  size_t err_len;

  void Fail(const char *format, ...) const __attribute__((format(printf, 2, 3)));
  int Key() const { return PrintLen(name_len); }
};

void OptionRead::Fail(const char *format, ...) const {
  if (err_msg == nullptr || err_len == 0) return;
  va_list ap;
  va_start(ap, format);
  KxVsnprintf(err_msg, err_len, format, ap);
  va_end(ap);
}

// Length of the row's keyword with its '=' (or of the whole flag name).
size_t RowKeyLen(const char *name) {
  const char *eq = strchr(name, '=');
  return eq != nullptr ? static_cast<size_t>(eq - name) + 1 : strlen(name);
}

bool InRange(const Option &row, uint64_t v) {
  return !((row.m_min != 0 && v < row.m_min) || (row.m_max != 0 && v > row.m_max));
}

// Parses the value of a matched row; returns the option number or
// PARSE_OPTION_ERROR.
int ParseValue(const Option &row, const OptionRead &rd, const char **cursor, uint64_t *int_value,
               char *str_value, size_t str_len) {
  const char *eq = strchr(row.m_name, '=');
  if (eq == nullptr) {  // a flag
    *int_value = 1;
    return row.m_option;
  }
  std::string_view syntax(eq + 1);
  const char *value = *cursor;
  int value_len = PrintLen(strcspn(value, ",="));
  const char *reason = "";
  if (syntax == "%b") {
    if (parse_boolean(cursor, int_value)) return row.m_option;
    rd.Fail("Unrecognized boolean value in '%.*s=%.*s'\n", rd.Key(), rd.keyword, value_len, value);
    return PARSE_OPTION_ERROR;
  }
  if (syntax == "%s") {
    if (parse_string(cursor, str_value, str_len, &reason)) return row.m_option;
    rd.Fail("Parse error in string value (%s) '%.*s=%s\n", reason, rd.Key(), rd.keyword, value);
    return PARSE_OPTION_ERROR;
  }
  if (!syntax.empty() && syntax.front() == '|') {
    if (parse_choice(cursor, syntax.data(), int_value)) return row.m_option;
    rd.Fail("Unknown choice enumerated in option '%.*s=%.*s'; Expected: {%s}\n", rd.Key(),
            rd.keyword, value_len, value, syntax.data() + 1);
    return PARSE_OPTION_ERROR;
  }
  bool interval = syntax == "%t";
  if (syntax == "%D") {
    if (!parse_number(cursor, int_value, &reason)) {
      rd.Fail("Unrecognized number (%s) in '%.*s=%.*s'\n", reason, rd.Key(), rd.keyword, value_len,
              value);
      return PARSE_OPTION_ERROR;
    }
  } else if (syntax == "%d") {
    if (!parse_decimal(cursor, int_value)) {
      rd.Fail("Unrecognized decimal value in '%.*s=%.*s'\n", rd.Key(), rd.keyword, value_len,
              value);
      return PARSE_OPTION_ERROR;
    }
  } else if (interval) {
    char msg[256];
    if (!parse_interval(cursor, int_value, msg, sizeof msg)) {
      rd.Fail("%sOption: '%.*s=%s'\n", msg, rd.Key(), rd.keyword, value);
      return PARSE_OPTION_ERROR;
    }
  } else {
    return row.m_option;  // a syntax that takes no value
  }
  if (InRange(row, *int_value)) return row.m_option;
  if (interval)
    rd.Fail("Parameter '%.*s' (%ld) out of range, min %d max %d\n", rd.Key(), rd.keyword,
            static_cast<long>(*int_value), static_cast<int>(row.m_min),
            static_cast<int>(row.m_max));
  else
    rd.Fail("Parameter '%.*s' (%ld) out of range, min %ld max %ld\n", rd.Key(), rd.keyword,
            static_cast<long>(*int_value), static_cast<long>(row.m_min),
            static_cast<long>(row.m_max));
  return PARSE_OPTION_ERROR;
}

}  // namespace

extern "C" int parse_option(const char **cursor, const Option *table, uint64_t *int_value,
                            char *str_value, size_t str_len, char *err_msg, size_t err_len) {
  if (err_msg != nullptr && err_len > 0) err_msg[0] = '\0';
  uint64_t scratch = 0;
  if (int_value == nullptr) int_value = &scratch;
  const char *p = *cursor;
  while (*p == '\n' || *p == ',') ++p;
  *cursor = p;
  if (*p == '\0' || *p == '#') return PARSE_OPTION_END;

  size_t kw_len = strcspn(p, ",=\r\n");
  bool has_eq = p[kw_len] == '=';
  OptionRead rd{p, kw_len, err_msg, err_len};
  if (has_eq) ++kw_len;
  std::string_view keyword(p, kw_len);

  for (const Option *row = table; row != nullptr && row->m_name != nullptr; ++row) {
    if (row->m_option == PARSE_OPTION_ERROR) continue;
    std::string_view name(row->m_name, RowKeyLen(row->m_name));
    if (EqualNoCase(name, keyword)) {
      *cursor = p + kw_len;
      return ParseValue(*row, rd, cursor, int_value, str_value, str_len);
    }
    bool row_has_eq = !name.empty() && name.back() == '=';
    if (has_eq || !row_has_eq || !EqualNoCase(name.substr(0, name.size() - 1), keyword)) continue;
    *cursor = p + kw_len;
    if (strcmp(row->m_name + name.size(), "%b") == 0) {
      *int_value = 1;  // a bare boolean keyword means true
      return row->m_option;
    }
    rd.Fail("Value missing for option '%.*s'\n", PrintLen(strcspn(p, ",")), p);
    return PARSE_OPTION_ERROR;
  }
  rd.Fail("Unrecognized option: '%.*s'\n", PrintLen(strcspn(p, ",")), p);
  return PARSE_OPTION_ERROR;
}
