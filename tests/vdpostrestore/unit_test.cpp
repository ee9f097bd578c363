// Units of the tool that need no file system: the mount point's trailing
// slashes (a lone "/" cannot be walked in a test), the operator's one
// question, and how paths are shown.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "options.h"
#include "rules/dir_policy.h"
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

// The bytes that $'...' quoting stands for (what a shell would read).
std::string unquote(const std::string &shown) {
  if (!shown.starts_with("$'")) return shown;
  std::string out;
  for (std::size_t i = 2; i + 1 < shown.size(); ++i) {
    if (shown[i] != '\\') {
      out += shown[i];
      continue;
    }
    const char c = shown[++i];
    if (c == 'x') {
      out += static_cast<char>(std::stoi(shown.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c;
    }
  }
  return out;
}

// A path is shown as it is unless a reader could not take it back exactly:
// control bytes, bytes that are not UTF-8, or a leading "$'". Quoted or not,
// every shown path reads back as the exact bytes of the name.
TEST(ShownPathTest, QuotedOnlyWhereNeededAndAlwaysReadsBack) {
  const struct {
    const char *path, *shown;  // shown null: as it is
  } cases[] = {
      {"/fs/a b/\xc3\xa9/\xf0\x9f\x98\x80", nullptr},  // blank, é, an emoji
      {"/fs/x$'y'", nullptr},
      {"/fs/nl\n/fs/keep_me", "$'/fs/nl\\n/fs/keep_me'"},
      {"/fs/tab\t", "$'/fs/tab\\t'"},
      {"/fs/cr\r\\'\x01\x7f\xc3\xa9", "$'/fs/cr\\r\\\\\\'\\x01\\x7f\xc3\xa9'"},
      {"/fs/\x80", "$'/fs/\\x80'"},                             // a lone continuation byte
      {"/fs/\xc3", "$'/fs/\\xc3'"},                             // a sequence cut short
      {"/fs/\xc0\xaf", "$'/fs/\\xc0\\xaf'"},                    // an overlong '/'
      {"/fs/\xed\xa0\x80", "$'/fs/\\xed\\xa0\\x80'"},           // a surrogate
      {"/fs/\xf4\x90\x80\x80", "$'/fs/\\xf4\\x90\\x80\\x80'"},  // beyond U+10FFFF
      {"$'x'", "$'$\\'x\\''"},
  };
  for (const auto &c : cases) {
    const ShownPath shown(c.path);
    if (c.shown == nullptr) {
      EXPECT_EQ(c.path, shown.c_str()) << "shown unchanged, not copied: " << c.path;
    } else {
      EXPECT_STREQ(c.shown, shown.c_str());
    }
    EXPECT_EQ(c.path, unquote(shown.c_str()));
  }
}

}  // namespace
