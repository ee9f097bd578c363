// Paths with line breaks are shell-quoted; every other path is shown as it is.
#include <gtest/gtest.h>

#include "shown_path.h"

TEST(ShownPathTest, OnlyLineBreaksCauseQuoting) {
  const char *plain = "/fs/a b\t\xc3\xa9\xff/x";  // blank, tab, UTF-8, invalid UTF-8
  EXPECT_EQ(plain, ShownPath(plain).c_str()) << "shown unchanged, not copied";
  EXPECT_STREQ("$'/fs/nl\\n/fs/keep_me'", ShownPath("/fs/nl\n/fs/keep_me").c_str());
  EXPECT_STREQ("$'/fs/cr\\r\\t\\\\\\'\\x01\\x7f\xc3\xa9'",
               ShownPath("/fs/cr\r\t\\'\x01\x7f\xc3\xa9").c_str());
}
