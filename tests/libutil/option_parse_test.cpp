// Option text as the author of a policy or objs.conf writes it: one option at
// a time through parse_option, then the value parsers and formatters alone.
#include "libutil/option_parse.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

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
  std::string One(const char *text) {
    cur_ = text;
    return Next();
  }
  std::string Rest() const { return cur_; }

  const char *cur_ = "";
};

TEST_F(ParseOptionTest, LinesAndSeparators) {
  cur_ = ",,dedup_pri=5,size=1k\n\nname=x,#dedup=yes";
  EXPECT_EQ("20 5", Next());
  EXPECT_EQ("12 1024", Next());
  EXPECT_EQ("2 x", Next());
  EXPECT_EQ("END", Next());
  EXPECT_EQ("#dedup=yes", Rest());  // the comment is left where it is
  EXPECT_EQ("END", One(""));
  EXPECT_EQ("END", One("\n,\n"));
}

TEST_F(ParseOptionTest, BlanksAndCarriageReturnsAreNotSeparators) {
  cur_ = "dedup_pri=1, size=2";
  EXPECT_EQ("20 1", Next());
  EXPECT_EQ("ERR Unrecognized option: ' size=2'\n", Next());
  cur_ = "dedup=yes\r\n";
  EXPECT_EQ("10 1", Next());
  EXPECT_EQ("ERR Unrecognized option: '\r\n'\n", Next());
}

TEST_F(ParseOptionTest, KeywordsIgnoreCaseAndAliasesShareTheirNumber) {
  EXPECT_EQ("20 7", One("DEDUP_Pri=7"));
  EXPECT_EQ("40 1", One("objs=yes"));
  EXPECT_EQ("40 0", One("WAS=no"));
  EXPECT_EQ("ERR Unrecognized option: 'dead=1'\n", One("dead=1"));
  EXPECT_EQ("ERR Unrecognized option: 'dedup_prio=1'\n", One("dedup_prio=1,x"));
}

TEST_F(ParseOptionTest, BareKeywords) {
  cur_ = "dedup,verbose,size";
  EXPECT_EQ("10 1", Next());
  EXPECT_EQ("5 1", Next());
  EXPECT_EQ("ERR Value missing for option 'size'\n", Next());
  EXPECT_EQ("", Rest());
  EXPECT_EQ("ERR Unrecognized option: 'verbose=1'\n", One("verbose=1"));
  EXPECT_EQ("8 77", One("other=zzz"));  // no value read for unknown syntaxes
  EXPECT_EQ("zzz", Rest());
}

TEST_F(ParseOptionTest, NumbersAndUnits) {
  EXPECT_EQ("12 16", One("size=0x10"));
  EXPECT_EQ("12 8", One("size=010"));
  EXPECT_EQ("12 4096", One("size=4k"));
  EXPECT_EQ("12 3145728", One("size=3M"));
  EXPECT_EQ("12 2147483648", One("size=2g"));
  EXPECT_EQ("12 1024", One("size=1KB"));
  EXPECT_EQ("B", Rest());
  EXPECT_EQ(
      "ERR Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed)) in "
      "'size=1T'\n",
      One("size=1T,x"));
  EXPECT_EQ("ERR Unrecognized number () in 'size='\n", One("size="));
  EXPECT_EQ("ERR Unrecognized number () in 'size=-1'\n", One("size=-1"));
  // Callers cut their text into lines first: a line feed is no separator here.
  EXPECT_EQ(
      "ERR Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed)) in "
      "'size=4\n'\n",
      One("size=4\n"));
}

TEST_F(ParseOptionTest, DecimalsStopAfterTheDigits) {
  cur_ = "dedup_pri=0x10";
  EXPECT_EQ("20 0", Next());
  EXPECT_EQ("x10", Rest());
  EXPECT_EQ("ERR Unrecognized option: 'x10'\n", Next());
  EXPECT_EQ("ERR Unrecognized decimal value in 'dedup_pri=abc'\n", One("dedup_pri=abc=d"));
}

TEST_F(ParseOptionTest, Intervals) {
  EXPECT_EQ("13 90", One("age=90"));
  EXPECT_EQ("13 90", One("age=1:30"));
  EXPECT_EQ("13 90", One("age=1m30s"));
  EXPECT_EQ("13 5400", One("age=1:30:00"));
  EXPECT_EQ("13 1209600", One("age=2w"));
  EXPECT_EQ("13 129600", One("age=1d 12h,x"));
  EXPECT_EQ(",x", Rest());
  EXPECT_EQ("13 10800", One("age=1h2h"));
  EXPECT_EQ(
      "ERR Bad time format: '1d12' (offset 4): incomplete specification\n"
      "Option: 'age=1d12'\n",
      One("age=1d12"));
  EXPECT_EQ("ERR Bad time format: ':' (offset 1): unexpected ':'\nOption: 'age=:30'\n",
            One("age=:30"));
  EXPECT_EQ(
      "ERR Bad time format: '12 3' (offset 4): unexpected digit(s)\n"
      "Option: 'age=12 3'\n",
      One("age=12 3"));
  EXPECT_EQ(
      "ERR Bad time format: 'h' (offset 1): unexpected w/d/h/m/s specifier\n"
      "Option: 'age=h'\n",
      One("age=h"));
  EXPECT_EQ("ERR Bad time format: '1x' (offset 2): invalid character\nOption: 'age=1x'\n",
            One("age=1x"));
  EXPECT_EQ(
      "ERR Bad time format: '' (offset 0): incomplete specification\n"
      "Option: 'age='\n",
      One("age="));
}

TEST_F(ParseOptionTest, BooleansArePrefixes) {
  EXPECT_EQ("10 1", One("dedup=onward"));
  EXPECT_EQ("ward", Rest());
  EXPECT_EQ("10 0", One("dedup=nope"));  // "no" is tried before "n"
  EXPECT_EQ("pe", Rest());
  EXPECT_EQ("10 0", One("dedup=OFF"));
  EXPECT_EQ("10 1", One("dedup=Y"));
  EXPECT_EQ("10 0", One("dedup=0"));
  EXPECT_EQ("10 1", One("dedup=True"));
  EXPECT_EQ("ERR Unrecognized boolean value in 'dedup=maybe'\n", One("dedup=maybe,x"));
  EXPECT_EQ("ERR Unrecognized boolean value in 'dedup='\n", One("dedup="));
}

TEST_F(ParseOptionTest, ChoicesGiveTheGroupIndexAndAreNotRangeChecked) {
  EXPECT_EQ("50 0", One("rep_input=TRUE"));
  EXPECT_EQ("50 1", One("rep_input=off,x"));
  EXPECT_EQ(",x", Rest());
  EXPECT_EQ("50 2", One("rep_input=disabled"));  // above the row's max of 1
  EXPECT_EQ(
      "ERR Unknown choice enumerated in option 'rep_input=of'; "
      "Expected: {on,true|off,false|disabled}\n",
      One("rep_input=of"));
}

TEST_F(ParseOptionTest, Strings) {
  EXPECT_EQ("2 a b", One("name=a b,x"));
  EXPECT_EQ(",x", Rest());
  EXPECT_EQ("2 a,b", One("name=\"a,b\"x"));
  EXPECT_EQ("x", Rest());
  EXPECT_EQ("2 ", One("name="));
  EXPECT_EQ("2 line", One("name=line\nnext"));
  EXPECT_EQ("2 fifteen chars!!", One("name=fifteen chars!!"));
  EXPECT_EQ(
      "ERR Parse error in string value (String option too long) "
      "'name=sixteen chars!!!\n",
      One("name=sixteen chars!!!"));
  EXPECT_EQ("ERR Parse error in string value (Unterminated string) 'name=\"abc\n",
            One("name=\"abc"));
}

TEST_F(ParseOptionTest, RangeErrors) {
  EXPECT_EQ("20 0", One("dedup_pri=0"));
  EXPECT_EQ("20 999", One("dedup_pri=999"));
  EXPECT_EQ("ERR Parameter 'dedup_pri' (1000) out of range, min 0 max 999\n",
            One("dedup_pri=1000"));
  EXPECT_EQ("ERR Parameter 'limit' (512) out of range, min 1024 max 1048576\n", One("limit=512"));
  EXPECT_EQ("6 1048576", One("limit=1m"));
  EXPECT_EQ("ERR Parameter 'win' (30) out of range, min 60 max 3600\n", One("win=30s"));
  EXPECT_EQ("ERR Parameter 'win' (7200) out of range, min 60 max 3600\n", One("win=2h"));
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
}

TEST(ValueParsers, OctalAndHexEdges) {
  const char *p = nullptr;
  uint64_t v = 0;
  const char *why = nullptr;
  p = "09";
  EXPECT_EQ(0, parse_number(&p, &v, &why));
  EXPECT_STREQ("09", p);
  p = "0x";  // no hex digit: "0" followed by a bad unit
  EXPECT_EQ(0, parse_number(&p, &v, &why));
  p = "0xfFk";
  ASSERT_EQ(1, parse_number(&p, &v, &why));
  EXPECT_EQ(255u * 1024, v);
}

TEST(ValueParsers, IntervalFailureZeroesTheResultAndKeepsTheCursor) {
  const char *p = "5q";
  uint64_t v = 9;
  char msg[8];
  EXPECT_EQ(0, parse_interval(&p, &v, msg, sizeof msg));
  EXPECT_EQ(0u, v);
  EXPECT_STREQ("5q", p);
  EXPECT_STREQ("Bad tim", msg);
  EXPECT_EQ(0, parse_interval(&p, &v, nullptr, 0));
}

TEST(Formatters, NumbersPrintTheLargestExactUnitAndReadBack) {
  char buf[FORMAT_BUF_SIZE];
  const std::vector<std::pair<uint64_t, std::string>> cases = {
      {0, "0G"},
      {1, "1"},
      {1023, "1023"},
      {1024, "1K"},
      {1536, "1536"},
      {3 << 20, "3M"},
      {5ull << 30, "5G"},
      {1ull << 40, "1024G"},
      {(1ull << 30) + (1 << 20), "1025M"},
      {UINT64_MAX, "18446744073709551615"},
  };
  for (const auto &[value, text] : cases) {
    format_number(value, buf, sizeof buf);
    EXPECT_EQ(text, buf);
    const char *p = buf, *why = nullptr;
    uint64_t back = 1;
    ASSERT_EQ(1, parse_number(&p, &back, &why)) << buf;
    EXPECT_EQ(value, back) << buf;
  }
  EXPECT_EQ(2, format_number(1024, buf, 2));  // cut, still terminated
  EXPECT_STREQ("1", buf);
}

TEST(Formatters, IntervalsReadBack) {
  char buf[FORMAT_BUF_SIZE];
  const std::vector<std::pair<uint64_t, std::string>> cases = {
      {0, "0s"},       {59, "59s"},       {60, "1m"},          {90, "1:30"},
      {3599, "59:59"}, {3600, "1h"},      {86400, "1d"},       {90000, "25h"},
      {172800, "2d"},  {3723, "1:02:03"}, {90061, "25:01:01"}, {604800, "7d"},
  };
  for (const auto &[value, text] : cases) {
    format_interval(value, buf, sizeof buf);
    EXPECT_EQ(text, buf);
    const char *p = buf;
    uint64_t back = 1;
    ASSERT_EQ(1, parse_interval(&p, &back, nullptr, 0)) << buf;
    EXPECT_EQ(value, back) << buf;
  }
}

TEST(Usage, ListsVisibleRowsWithTheirPlaceholders) {
  const Option table[] = {
      {"flag", 1, 0, 0, "a flag", 0, VDOPT_BOOL, 0},
      {"size=%D", 2, 0, 0, "a size", 0, VDOPT_UINT64, 0},
      {"age=%t", 3, 0, 0, nullptr, 0, VDOPT_UINT32, 0},
      {"secret=%s", 4, 0, 0, "hidden", 1, VDOPT_STR_DYNAMIC, 0},
      {"internal=%s", PARSE_OPTION_HIDDEN, 0, 0, "hidden", 0, VDOPT_STR_DYNAMIC, 0},
      {"a_very_long_keyword_for_listing=%b", 5, 0, 0, "long", 0, VDOPT_BOOL, 0},
      {"another_very_long_keyword_here=%d", 6, 0, 0, nullptr, 0, VDOPT_UINT32, 0},
      {nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
  };
  testing::internal::CaptureStderr();
  parser_usage(table);
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_EQ(
      "  flag                          a flag\n"
      "  size=<value>[k|m|g]           a size\n"
      "  age=<value>[k|m|g]            \n"
      "  a_very_long_keyword_for_listing=<boolean>\n"
      "                                long\n"
      "  another_very_long_keyword_here=<value>\n",
      out);
}

}  // namespace
