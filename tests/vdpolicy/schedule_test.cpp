// Blackout windows and target schedules as a policy author writes them.
#include "vdpolicy/lib/config/schedule.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"

namespace {

// The values whose bits are set, e.g. "0,15,30,45", offset by the field's
// first value; "*" when every one is.
std::string Values(const unsigned char *set, int count, int first) {
  std::string out;
  int set_count = 0;
  for (int n = 0; n < count; ++n) {
    if (!sched_bit_test(set, n)) continue;
    if (!out.empty()) out += ',';
    out += std::to_string(n + first);
    ++set_count;
  }
  return set_count == count ? "*" : out;
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

// Each row is a text and the fields it sets.
TEST_F(ScheduleTest, FieldsAndKeywords) {
  const std::pair<const char *, const char *> cases[] = {
      {"0 8-18 * * Mon-Fri", "0 | 8,9,10,11,12,13,14,15,16,17,18 | * | * | 1,2,3,4,5 | 0x4"},
      {"*/15 * * * *", "0,15,30,45 | * | * | * | * | 0xf"},
      {"\t 5,7 1-5/2 1,15 feb,JUL mon  ", "5,7 | 1,3,5 | 1,15 | 2,7 | 1 | 0"},
      {"59\t23 31 12 6", "59 | 23 | 31 | 12 | 6 | 0"},
      // A step after a single value is ignored with the rest of the field.
      {"5/10,7 0 1 1 0", "5 | 0 | 1 | 1 | 0,7 | 0"},
      // Sunday is both 0 and 7, however it is named.
      {"0 0 1 1 7", "0 | 0 | 1 | 1 | 0,7 | 0"},
      {"0 0 1 1 sun", "0 | 0 | 1 | 1 | 0,7 | 0"},
      {"0 0 1 1 6-7", "0 | 0 | 1 | 1 | 0,6,7 | 0"},
      {"@reboot", " |  |  |  |  | 0x10"},
      {"@yearly", "0 | 0 | 1 | 1 | * | 0x8"},
      {"  @annually  ", "0 | 0 | 1 | 1 | * | 0x8"},
      {"@monthly", "0 | 0 | 1 | * | * | 0x8"},
      {"@weekly", "0 | 0 | * | * | 0,7 | 0x4"},
      {"@daily", "0 | 0 | * | * | * | 0x4"},
      {"@midnight", "0 | 0 | * | * | * | 0x4"},
      {"@hourly", "0 | * | * | * | * | 0x6"},
  };
  for (const auto &[text, fields] : cases) EXPECT_EQ(fields, Load(text)) << text;
}

// Each field, and an unknown keyword, has its own word in the one error line.
TEST_F(ScheduleTest, ErrorsNameTheFieldThatFailed) {
  const std::pair<std::string, std::string> cases[] = {
      {"time specifier", "@Daily"},
      {"time specifier", "@" + std::string(2000, 'd')},
      {"minute", "60 * * * *"},
      {"minute", "*/0 * * * *"},
      {"minute", "1-/5 * * * *"},
      {"minute", std::string(120, '1') + " * * * *"},
      {"hour", "0 5-3 * * *"},
      {"hour", "0 24 * * *"},
      {"day-of-month", "0 0 0 * *"},
      {"day-of-month", "0 0 30-32 * *"},
      {"month", "0 0 * January *"},
      {"month", "0 0 *"},
      {"month", "0 0 * " + std::string(150, 'j') + " *"},
      {"day-of-week", "0 0 * * 8"},
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
