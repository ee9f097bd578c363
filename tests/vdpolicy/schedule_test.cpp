// Blackout windows and target schedules as a policy author writes them.
#include "vdpolicy/lib/schedule.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"

namespace {

// The values whose bits are set, e.g. "0,15,30,45", offset by the field's
// first value.
std::string Values(const unsigned char *set, int count, int first) {
  std::string out;
  for (int n = 0; n < count; ++n) {
    if (!sched_bit_test(set, n)) continue;
    if (!out.empty()) out += ',';
    out += std::to_string(n + first);
  }
  return out;
}

class ScheduleTest : public ::testing::Test {
 protected:
  // "<minutes> | <hours> | <days> | <months> | <weekdays> | flags", or the
  // logged error.
  static std::string Load(const char *text) {
    std::vector<std::string> &log = vdtest::LogCapture::Lines();
    log.clear();
    sched_entry_t *e = load_entry(text);
    if (e == nullptr) return log.empty() ? "null" : log.back();
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(nullptr, e->next);
    char flags[8];
    snprintf(flags, sizeof flags, "%#x", static_cast<unsigned>(e->flags));
    std::string out = Values(e->minute, 60, 0) + " | " + Values(e->hour, 24, 0) + " | " +
                      Values(e->dom, 31, 1) + " | " + Values(e->month, 12, 1) + " | " +
                      Values(e->dow, 8, 0) + " | " + flags;
    free_entry(e);
    return out;
  }

  vdtest::LogCapture log_;
};

const std::string kAllDays =
    "1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,30,31";
const std::string kAllMonths = "1,2,3,4,5,6,7,8,9,10,11,12";
const std::string kAllHours = "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23";

TEST_F(ScheduleTest, FiveFields) {
  EXPECT_EQ("0 | 8,9,10,11,12,13,14,15,16,17,18 | " + kAllDays + " | " + kAllMonths +
                " | 1,2,3,4,5 | 0x4",
            Load("0 8-18 * * Mon-Fri"));
  EXPECT_EQ("0,15,30,45 | " + kAllHours + " | " + kAllDays + " | " + kAllMonths +
                " | 0,1,2,3,4,5,6,7 | 0xf",
            Load("*/15 * * * *"));
  EXPECT_EQ("5,7 | 1,3,5 | 1,15 | 2,7 | 1 | 0", Load("\t 5,7 1-5/2 1,15 feb,JUL mon  "));
  EXPECT_EQ("59 | 23 | 31 | 12 | 6 | 0", Load("59\t23 31 12 6"));
}

TEST_F(ScheduleTest, StepAfterASingleValueIsIgnoredWithTheRestOfTheField) {
  EXPECT_EQ("5 | 0 | 1 | 1 | 0,7 | 0", Load("5/10 0 1 1 0"));
  EXPECT_EQ("5 | 0 | 1 | 1 | 0,7 | 0", Load("5/10,7 0 1 1 0"));
}

TEST_F(ScheduleTest, SundayIsFoldedBothWays) {
  EXPECT_EQ("0 | 0 | 1 | 1 | 0,7 | 0", Load("0 0 1 1 7"));
  EXPECT_EQ("0 | 0 | 1 | 1 | 0,7 | 0", Load("0 0 1 1 sun"));
  EXPECT_EQ("0 | 0 | 1 | 1 | 0,6,7 | 0", Load("0 0 1 1 6-7"));
}

TEST_F(ScheduleTest, Keywords) {
  EXPECT_EQ(" |  |  |  |  | 0x10", Load("@reboot"));
  EXPECT_EQ("0 | 0 | 1 | 1 | 0,1,2,3,4,5,6,7 | 0x8", Load("@yearly"));
  EXPECT_EQ(Load("@yearly"), Load("  @annually  "));
  EXPECT_EQ("0 | 0 | 1 | " + kAllMonths + " | 0,1,2,3,4,5,6,7 | 0x8", Load("@monthly"));
  EXPECT_EQ("0 | 0 | " + kAllDays + " | " + kAllMonths + " | 0,7 | 0x4", Load("@weekly"));
  EXPECT_EQ("0 | 0 | " + kAllDays + " | " + kAllMonths + " | 0,1,2,3,4,5,6,7 | 0x4",
            Load("@daily"));
  EXPECT_EQ(Load("@daily"), Load("@midnight"));
  EXPECT_EQ("0 | " + kAllHours + " | " + kAllDays + " | " + kAllMonths + " | 0,1,2,3,4,5,6,7 | 0x6",
            Load("@hourly"));
}

// Each field, and an unknown keyword, has its own word in the one error line.
TEST_F(ScheduleTest, ErrorsNameTheFieldThatFailed) {
  const std::pair<std::string, std::string> cases[] = {
      {"time specifier", "@Daily"},
      {"time specifier", "@"},
      {"time specifier", "@" + std::string(2000, 'd')},
      {"minute", "60 * * * *"},
      {"minute", "*/0 * * * *"},
      {"minute", "1-/5 * * * *"},
      {"minute", "1- * * * *"},
      {"minute", "a * * * *"},
      {"minute", "1,,2 * * * *"},
      {"minute", std::string(120, '1') + " * * * *"},
      {"minute", "99999999999999999999 * * * *"},
      {"hour", "0 5-3 * * *"},
      {"hour", "0 24 * * *"},
      {"day-of-month", "0 0 0 * *"},
      {"day-of-month", "0 0 30-32 * *"},
      {"month", "0 0 * January *"},
      {"month", "0 0 *"},
      {"month", "0 0 * " + std::string(150, 'j') + " *"},
      {"day-of-week", "0 0 * * 8"},
      {"day-of-week", "0 0 * * Funday"},
      {"day-of-week", "0 0 * * Mon-"},
      {"command", "0 0 * * * extra"},
      {"command", "0 0 * * *\n"},
  };
  for (const auto &[word, text] : cases) {
    EXPECT_EQ("3:Failed to parse schedule: bad " + word + "\n", Load(text.c_str())) << text;
  }
}

TEST_F(ScheduleTest, EmptyTextFailsSilently) {
  EXPECT_EQ("null", Load(""));
  EXPECT_EQ("null", Load(" \t "));
  EXPECT_EQ(nullptr, load_entry(nullptr));
  EXPECT_TRUE(vdtest::LogCapture::Lines().empty());
  free_entry(nullptr);
}

TEST(ScheduleHelpers, GetStringCutsLongWordsAndReturnsTheTerminator) {
  const char *p = "abcdef ghi";
  char buf[4];
  EXPECT_EQ(' ', get_string(buf, sizeof buf, &p, " "));
  EXPECT_STREQ("abc", buf);
  EXPECT_STREQ("ghi", p);
  EXPECT_EQ(-1, get_string(buf, sizeof buf, &p, " "));
  EXPECT_STREQ("ghi", buf);
  EXPECT_EQ(-1, get_char(&p));
  EXPECT_EQ(-1, get_char(&p));  // stays at the end
  unget_char(-1, &p);
  EXPECT_STREQ("", p);
}

TEST(ScheduleHelpers, GetNumberChecksItsTerminatorAndStepsBack) {
  const char *text = "12x";
  const char *p = text;
  int value = 0, error = 0;
  EXPECT_EQ(-1, get_number(&value, 0, nullptr, get_char(&p), &p, ",", &error));
  EXPECT_EQ(1, error);
  EXPECT_EQ(text + 2, p);  // back on the offending character
  p = "wed,";
  error = 0;
  EXPECT_EQ(',', get_number(&value, 0, DowNames, get_char(&p), &p, ",", &error));
  EXPECT_EQ(0, error);
  EXPECT_EQ(3, value);
}

}  // namespace
