// Units of the tool that need no file system: the mount point's trailing
// slashes (a lone "/" cannot be walked in a test), the operator's one
// question, and how paths are shown.
#include <gtest/gtest.h>

#include <cstdio>

#include "dir_policy.h"
#include "options.h"
#include "settings.h"
#include "shown_path.h"

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

// Whether to keep deduplicated files: "<y>" is the answer at end of input
// only, a bare Enter does not keep.
TEST(PostRestoreDedupQuestionTest, AnswersAndEndOfInput) {
  const struct {
    const char *input;
    int keep;
  } cases[] = {{"Yes\n", 1}, {"y\n", 1}, {"\n", 0}, {"no\n", 0}, {"", 1}};
  Verbosity = 0;  // keep the question off the test's output
  for (const auto &c : cases) {
    Prompt_for_dedup_files = 0;
    Preserve_dedup_files = 0;
    FILE *in = std::tmpfile();
    std::fputs(c.input, in);
    std::rewind(in);
    ask_keep_dedup_files(in);
    std::fclose(in);
    EXPECT_EQ(c.keep, Preserve_dedup_files) << "answer '" << c.input << "'";
    EXPECT_EQ(1, Prompt_for_dedup_files);
  }
  Verbosity = 1;
}

// Paths with line breaks are shell-quoted; every other path is shown as it is.
TEST(ShownPathTest, OnlyLineBreaksCauseQuoting) {
  const char *plain = "/fs/a b\t\xc3\xa9\xff/x";  // blank, tab, UTF-8, invalid UTF-8
  EXPECT_EQ(plain, ShownPath(plain).c_str()) << "shown unchanged, not copied";
  EXPECT_STREQ("$'/fs/nl\\n/fs/keep_me'", ShownPath("/fs/nl\n/fs/keep_me").c_str());
  EXPECT_STREQ("$'/fs/cr\\r\\t\\\\\\'\\x01\\x7f\xc3\xa9'",
               ShownPath("/fs/cr\r\t\\'\x01\x7f\xc3\xa9").c_str());
}

}  // namespace
