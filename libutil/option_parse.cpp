// Table-driven option parsing: parse_option and the formatters that print
// values back in the same syntax. The value parsers are in option_values.cpp.
#include "libutil/option_parse.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "libutil/option_text.h"
#include "libutil/snprintf.h"

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
        placeholder = syntax.substr(1);  // the choice list, as in its error
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

using kx::option_text::EqualNoCase;
using kx::option_text::PrintLen;

// One call of parse_option: the keyword found at the cursor and where to
// write its message.
struct OptionRead {
  const char *keyword;  // start of the keyword
  size_t name_len;      // keyword length without '='
  char *err_msg;
  size_t err_len;

  void Fail(const char *format, ...) const __attribute__((format(printf, 2, 3)));
  // Adds to the message already in err_msg (cut, like it, to err_len).
  void Append(const char *format, ...) const __attribute__((format(printf, 2, 3)));
  int Key() const { return PrintLen(name_len); }
};

void OptionRead::Fail(const char *format, ...) const {
  if (err_msg == nullptr || err_len == 0) return;
  va_list ap;
  va_start(ap, format);
  KxVsnprintf(err_msg, err_len, format, ap);
  va_end(ap);
}

void OptionRead::Append(const char *format, ...) const {
  if (err_msg == nullptr || err_len == 0) return;
  size_t used = strnlen(err_msg, err_len - 1);
  va_list ap;
  va_start(ap, format);
  KxVsnprintf(err_msg + used, err_len - used, format, ap);
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
    // The interval's own message goes straight into the caller's buffer so
    // that a long value is cut only where the caller's buffer ends.
    if (!parse_interval(cursor, int_value, rd.err_msg, rd.err_len)) {
      rd.Append("Option: '%.*s=%s'\n", rd.Key(), rd.keyword, value);
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
