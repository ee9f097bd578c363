// Option text as the author of a policy or objs.conf writes it: one option at
// a time through parse_option, then the value parsers and formatters alone.
#include "libutil/option_parse.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

// One row of every value syntax, like the policy and objs.conf tables.
const Option kTable[] = {
    {"dedup_pri=%d", 20, 0, 999, "relative dedup priority", 0, VDOPT_UINT32, 0},
    {"size=%D", 12, 0, 0, "maximum size", 0, VDOPT_UINT64, 0},
    {"limit=%D", 6, 1024, 1048576, nullptr, 0, VDOPT_UINT64, 0},
    {"age=%t", 13, 0, 0, "minimum age", 0, VDOPT_UINT32, 0},
    {"win=%t", 7, 60, 3600, nullptr, 0, VDOPT_UINT32, 0},
    {"dedup=%b", 10, 0, 1, "dedup policy", 0, VDOPT_BITMASK, 0},
    {"name=%s", 2, 0, 0, "policy id", 0, VDOPT_STR_DYNAMIC, 0},
    {"rep_input=|on,true|off,false|disabled", 50, 0, 1, nullptr, 0, VDOPT_BITMASK, 0},
    {"verbose", 5, 0, 0, "be chatty", 0, VDOPT_BOOL, 0},
    {"other=%x", 8, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
    {"objs=%b", 40, 0, 1, nullptr, 0, VDOPT_BITMASK, 0},
    {"was=%b", 40, 0, 1, nullptr, 0, VDOPT_BITMASK, 0},
    {"dead=%d", PARSE_OPTION_ERROR, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
    {nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
};

class ParseOptionTest : public ::testing::Test {
 protected:
  // Reads one option and describes the outcome as "<rc> <value>" plus the
  // string for string rows, or "<rc> <message>" on error.
  std::string Next() {
    uint64_t v = 77;
    char str[16] = "unset";
    char msg[256] = "stale";
    int rc = parse_option(&cur_, kTable, &v, str, sizeof str, msg, sizeof msg);
    if (rc == PARSE_OPTION_ERROR) return "ERR " + std::string(msg);
    if (rc == PARSE_OPTION_END) return "END";
    EXPECT_STREQ("", msg);
    if (rc == 2) return std::to_string(rc) + " " + str;
    return std::to_string(rc) + " " + std::to_string(v);
  }

  const char *cur_ = "";
};

// One text per row: the outcomes of reading it option by option and, where it
// matters, the text left at the cursor.
struct Reading {
  const char *text;
  std::vector<std::string> reads;
  const char *rest = nullptr;
};

const std::string kBadUnit = "Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed))";
std::string BadTime(const char *at, int offset, const char *why, const char *option) {
  return "ERR Bad time format: '" + std::string(at) + "' (offset " + std::to_string(offset) +
         "): " + why + "\nOption: '" + option + "'\n";
}

const Reading kReadings[] = {
    // Lines and commas separate options; a comment ends the text where it is.
    {",,dedup_pri=5,size=1k\n\nname=x,#dedup=yes", {"20 5", "12 1024", "2 x", "END"}, "#dedup=yes"},
    {"\n,\n", {"END"}},
    // Blanks and carriage returns are not separators.
    {"dedup_pri=1, size=2", {"20 1", "ERR Unrecognized option: ' size=2'\n"}},
    {"dedup=yes\r\n", {"10 1", "ERR Unrecognized option: '\r\n'\n"}},
    // Keywords ignore case, aliases share their number, error rows never match.
    {"DEDUP_Pri=7", {"20 7"}},
    {"objs=yes", {"40 1"}},
    {"WAS=no", {"40 0"}},
    {"dead=1", {"ERR Unrecognized option: 'dead=1'\n"}},
    {"dedup_prio=1,x", {"ERR Unrecognized option: 'dedup_prio=1'\n"}},
    // Bare keywords: booleans and flags are true, anything else lacks its value.
    {"dedup,verbose,size", {"10 1", "5 1", "ERR Value missing for option 'size'\n"}, ""},
    {"verbose=1", {"ERR Unrecognized option: 'verbose=1'\n"}},
    {"other=zzz", {"8 77"}, "zzz"},  // no value read for unknown syntaxes
    // Numbers take any base and a unit.
    {"size=010", {"12 8"}},
    {"size=0xfFk", {"12 261120"}},
    {"size=4k", {"12 4096"}},
    {"size=3M", {"12 3145728"}},
    {"size=2g", {"12 2147483648"}},
    {"size=1KB", {"12 1024"}, "B"},
    {"size=1T,x", {"ERR " + kBadUnit + " in 'size=1T'\n"}},
    {"size=09", {"ERR " + kBadUnit + " in 'size=09'\n"}, "09"},  // octal; cursor kept
    {"size=0x", {"ERR " + kBadUnit + " in 'size=0x'\n"}},        // no hex digit: "0", bad unit
    {"size=-1", {"ERR Unrecognized number () in 'size=-1'\n"}},
    // Callers cut their text into lines first: a line feed is no separator here.
    {"size=4\n", {"ERR " + kBadUnit + " in 'size=4\n'\n"}},
    {"dedup_pri=abc=d", {"ERR Unrecognized decimal value in 'dedup_pri=abc'\n"}},
    {"dedup_pri=0x10", {"20 0"}, "x10"},  // decimals stop after the digits
    // Intervals in every form.
    {"age=90", {"13 90"}},
    {"age=1:30", {"13 90"}},
    {"age=1m30s", {"13 90"}},
    {"age=1:30:00", {"13 5400"}},
    {"age=2w", {"13 1209600"}},
    {"age=1d 12h,x", {"13 129600"}, ",x"},
    {"age=1h2h", {"13 10800"}},
    {"age=1d12", {BadTime("1d12", 4, "incomplete specification", "age=1d12")}},
    {"age=:30", {BadTime(":", 1, "unexpected ':'", "age=:30")}},
    {"age=12 3", {BadTime("12 3", 4, "unexpected digit(s)", "age=12 3")}},
    {"age=h", {BadTime("h", 1, "unexpected w/d/h/m/s specifier", "age=h")}},
    {"age=1x", {BadTime("1x", 2, "invalid character", "age=1x")}},
    {"age=", {BadTime("", 0, "incomplete specification", "age=")}},
    // Booleans are prefixes; "no" is tried before "n".
    {"dedup=onward", {"10 1"}, "ward"},
    {"dedup=nope", {"10 0"}, "pe"},
    {"dedup=OFF", {"10 0"}},
    {"dedup=Y", {"10 1"}},
    {"dedup=0", {"10 0"}},
    {"dedup=True", {"10 1"}},
    {"dedup=maybe,x", {"ERR Unrecognized boolean value in 'dedup=maybe'\n"}},
    // Choices give the group index and are not range checked.
    {"rep_input=TRUE", {"50 0"}},
    {"rep_input=off,x", {"50 1"}, ",x"},
    {"rep_input=disabled", {"50 2"}},  // above the row's max of 1
    {"rep_input=of",
     {"ERR Unknown choice enumerated in option 'rep_input=of'; "
      "Expected: {on,true|off,false|disabled}\n"}},
    // Strings may be quoted and hold at most the buffer less one.
    {"name=a b,x", {"2 a b"}, ",x"},
    {"name=\"a,b\"x", {"2 a,b"}, "x"},
    {"name=", {"2 "}},
    {"name=line\nnext", {"2 line"}},
    {"name=fifteen chars!!", {"2 fifteen chars!!"}},
    {"name=sixteen chars!!!",
     {"ERR Parse error in string value (String option too long) 'name=sixteen chars!!!\n"}},
    {"name=\"abc", {"ERR Parse error in string value (Unterminated string) 'name=\"abc\n"}},
    // Ranges, inclusive; 0 means no bound.
    {"dedup_pri=0", {"20 0"}},
    {"dedup_pri=1000", {"ERR Parameter 'dedup_pri' (1000) out of range, min 0 max 999\n"}},
    {"limit=512", {"ERR Parameter 'limit' (512) out of range, min 1024 max 1048576\n"}},
    {"limit=1m", {"6 1048576"}},
    {"win=30s", {"ERR Parameter 'win' (30) out of range, min 60 max 3600\n"}},
    {"win=2h", {"ERR Parameter 'win' (7200) out of range, min 60 max 3600\n"}},
};

TEST_F(ParseOptionTest, EveryReading) {
  for (const Reading &c : kReadings) {
    SCOPED_TRACE(c.text);
    cur_ = c.text;
    for (const std::string &expected : c.reads) EXPECT_EQ(expected, Next());
    if (c.rest != nullptr) {
      EXPECT_STREQ(c.rest, cur_);
    }
  }
}

TEST_F(ParseOptionTest, MessageBuffersMayBeSmallOrAbsent) {
  const char *text = "nosuch=1";
  uint64_t v = 0;
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, &v, nullptr, 0, nullptr, 0));
  char msg[8];
  text = "nosuch=1";
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, nullptr, nullptr, 0, msg, sizeof msg));
  EXPECT_STREQ("Unrecog", msg);
  text = "name=x";  // no string buffer: any string is too long
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, &v, nullptr, 0, msg, sizeof msg));
  // A failed interval zeroes the value and keeps the cursor, with or without
  // a message buffer.
  text = "age=5q";
  v = 9;
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, &v, nullptr, 0, msg, sizeof msg));
  EXPECT_EQ(0u, v);
  EXPECT_STREQ("5q", text);
  EXPECT_STREQ("Bad tim", msg);
  text = "age=5q";
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, &v, nullptr, 0, nullptr, 0));
  // A long interval's message fills a large buffer; it is not cut short.
  const std::string value = std::string(250, ' ') + "x", option = "age=" + value;
  char big[600];
  text = option.c_str();
  EXPECT_EQ(PARSE_OPTION_ERROR, parse_option(&text, kTable, &v, nullptr, 0, big, sizeof big));
  EXPECT_EQ(BadTime(value.c_str(), 251, "invalid character", option.c_str()),
            "ERR " + std::string(big));
}

// Each text is read and printed back the same: values print in their largest
// exact unit, in the syntax their parser reads.
TEST(Formatters, PrintWhatTheParsersRead) {
  char buf[FORMAT_BUF_SIZE];
  for (const char *text :
       {"0G", "1", "1023", "1K", "1536", "3M", "5G", "1024G", "1025M", "18446744073709551615"}) {
    const char *p = text, *why = nullptr;
    uint64_t value = 1;
    ASSERT_EQ(1, parse_number(&p, &value, &why)) << text;
    format_number(value, buf, sizeof buf);
    EXPECT_STREQ(text, buf);
  }
  for (const char *text :
       {"0s", "59s", "1m", "1:30", "59:59", "1h", "1d", "25h", "2d", "1:02:03", "25:01:01", "7d"}) {
    const char *p = text;
    uint64_t value = 1;
    ASSERT_EQ(1, parse_interval(&p, &value, nullptr, 0)) << text;
    format_interval(value, buf, sizeof buf);
    EXPECT_STREQ(text, buf);
  }
  EXPECT_EQ(2, format_number(1024, buf, 2));  // cut, still terminated
  EXPECT_STREQ("1", buf);
}

TEST(Usage, ListsVisibleRowsWithTheirPlaceholders) {
  const Option table[] = {
      {"flag", 1, 0, 0, "a flag", 0, VDOPT_BOOL, 0},
      {"size=%D", 2, 0, 0, "a size", 0, VDOPT_UINT64, 0},
      {"age=%t", 3, 0, 0, nullptr, 0, VDOPT_UINT32, 0},
      {"mode=|on,true|off", 7, 0, 0, "a choice", 0, VDOPT_BITMASK, 0},
      {"secret=%s", 4, 0, 0, "hidden", 1, VDOPT_STR_DYNAMIC, 0},
      {"internal=%s", PARSE_OPTION_HIDDEN, 0, 0, "hidden", 0, VDOPT_STR_DYNAMIC, 0},
      {"a_very_long_keyword_for_listing=%b", 5, 0, 0, "long", 0, VDOPT_BOOL, 0},
      {"another_very_long_keyword_here=%d", 6, 0, 0, nullptr, 0, VDOPT_UINT32, 0},
      {nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
  };
  EXPECT_EQ(
      "  flag                          a flag\n"
      "  size=<value>[k|m|g]           a size\n"
      "  age=<value>[k|m|g]            \n"
      "  mode=on,true|off              a choice\n"
      "  a_very_long_keyword_for_listing=<boolean>\n"
      "                                long\n"
      "  another_very_long_keyword_here=<value>\n",
      vdtest::StderrOf([&] { parser_usage(table); }));
}

}  // namespace
