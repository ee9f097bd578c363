#include "libutil/snprintf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <cwchar>

namespace {

// Kept out of sight of the compiler's format checks on purpose.
const char *volatile kNullFormat = nullptr;

class KxSnprintfTest : public ::testing::Test {
 protected:
  void SetUp() override { std::memset(buf_, 'x', sizeof buf_); }
  char buf_[16];
};

TEST_F(KxSnprintfTest, RefusalsWriteNothingAndANullBufferMeasures) {
  EXPECT_EQ(-1, KxSnprintf(buf_, sizeof buf_, kNullFormat));
  EXPECT_EQ(-1, KxSnprintf(nullptr, 0, kNullFormat));
  EXPECT_EQ(-1, KxSnprintf(nullptr, 8, "%d", 12345));
  EXPECT_EQ(5, KxSnprintf(nullptr, 0, "%d", 12345));
  EXPECT_EQ(3, KxSnprintf(buf_, 0, "abc"));
  EXPECT_EQ('x', buf_[0]);
}

TEST_F(KxSnprintfTest, OutputIsTerminatedAndTheResultIsTheFullLength) {
  EXPECT_EQ(6, KxSnprintf(buf_, 4, "%s", "abcdef"));
  EXPECT_STREQ("abc", buf_);
  EXPECT_EQ('x', buf_[4]);
  EXPECT_EQ(3, KxSnprintf(buf_, 4, "%s", "abc"));  // an exact fit
  EXPECT_STREQ("abc", buf_);
}

TEST_F(KxSnprintfTest, FormattingErrorStillTerminates) {
  // A wide character with no narrow form in the C locale makes vsnprintf fail.
  const wchar_t wide[] = {static_cast<wchar_t>(0x7fffffff), 0};
  const int n = KxSnprintf(buf_, 8, "abcdefghij%ls", wide);
  ASSERT_LT(n, 0) << "vsnprintf did not fail on this platform";
  EXPECT_EQ('\0', buf_[7]);
  EXPECT_EQ('x', buf_[8]);
}

}  // namespace
