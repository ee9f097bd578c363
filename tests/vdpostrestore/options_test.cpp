// The mount point's trailing slashes (a lone "/" cannot be walked in a test).
#include <gtest/gtest.h>

#include <cstdio>

#include "options.h"

namespace {

TEST(PostRestoreOptionsTest, StripTrailingSlashesKeepsALoneSlash) {
  struct Case {
    const char *in, *out;
  } cases[] = {{"/", "/"},    {"//", "/"},   {"///", "/"}, {"/fs/a///", "/fs/a"},
               {"fs/", "fs"}, {"/fs", "/fs"}};
  for (const auto &c : cases) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "%s", c.in);
    strip_trailing_slashes(buf);
    EXPECT_STREQ(c.out, buf) << "input " << c.in;
  }
}

}  // namespace
