// Fuzzes parse_option over the option tables the suite reads, and checks
// that the formatters' output always reads back to the same value.
#include <cstdint>
#include <cstring>
#include <string>

#include "libutil/option_parse.h"
#include "vdpolicy/lib/check/vd_was_lib.h"
#if VD_FUZZ_POLICY_OPTIONS
#include "vdpolicy/lib/config/policy.h"
#endif

namespace {

// Every value syntax, including a flag, an unknown syntax and the rows that
// parse_option and parser_usage treat specially.
const Option kEveryType[] = {
    {"num=%d", 1, 0, 999, "decimal", 0, VDOPT_UINT32, 0},
    {"size=%D", 2, 1024, 0, "size", 0, VDOPT_UINT64, 0},
    {"age=%t", 3, 60, 86400, "interval", 0, VDOPT_UINT32, 0},
    {"on=%b", 4, 0, 1, "boolean", 0, VDOPT_BOOL, 0},
    {"name=%s", 5, 0, 0, "string", 0, VDOPT_STR_DYNAMIC, 0},
    {"pick=|a,b|c||d", 6, 0, 0, "choice", 0, VDOPT_BITMASK, 0},
    {"flag", 7, 0, 0, "flag", 0, VDOPT_BOOL, 0},
    {"odd=%q", 8, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
    {"hidden=%s", PARSE_OPTION_HIDDEN, 0, 0, nullptr, 0, VDOPT_STR_STATIC, 0},
    {"dead=%d", PARSE_OPTION_ERROR, 0, 0, nullptr, 1, VDOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
};

const Option *Table(uint8_t selector) {
  switch (selector % 3) {
    case 1:
      return CloudOptions;
#if VD_FUZZ_POLICY_OPTIONS
    case 2:
      return PolicyOptions;
#endif
    default:
      return kEveryType;
  }
}

void CheckRoundTrips(const uint8_t *data, size_t size) {
  if (size < 8) return;
  uint64_t v = 0;
  memcpy(&v, data, sizeof v);
  char buf[FORMAT_BUF_SIZE];
  format_number(v, buf, sizeof buf);
  const char *p = buf, *why = nullptr;
  uint64_t back = 0;
  if (!parse_number(&p, &back, &why) || back != v || *p != '\0') __builtin_trap();
  format_interval(v, buf, sizeof buf);
  p = buf;
  if (!parse_interval(&p, &back, nullptr, 0) || back != v || *p != '\0') __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  CheckRoundTrips(data + 1, size - 1);
  const Option *table = Table(data[0]);
  // A small string buffer on odd selectors reaches "String option too long".
  size_t str_len = (data[0] & 4) ? 8 : 512;
  std::string text(reinterpret_cast<const char *>(data + 1), size - 1);
  const char *cur = text.c_str();
  char str[512];
  char msg[512];
  for (int guard = 0; guard < 4096; ++guard) {
    uint64_t v = 0;
    const char *before = cur;
    int rc = parse_option(&cur, table, &v, str, str_len, msg, sizeof msg);
    if (cur < text.c_str() || cur > text.c_str() + text.size()) __builtin_trap();
    if (rc == PARSE_OPTION_END || rc == PARSE_OPTION_ERROR) break;
    if (strlen(str) >= str_len && rc == 5) __builtin_trap();
    // Readers loop until the end or an error: every option read must move on.
    if (cur == before) __builtin_trap();
  }
  return 0;
}
