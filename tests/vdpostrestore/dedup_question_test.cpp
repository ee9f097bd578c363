// The operator's one question: whether to keep deduplicated files.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "dir_policy.h"
#include "settings.h"

namespace {

class PostRestoreDedupQuestionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Preserve_dedup_files = 0;
    Prompt_for_dedup_files = 0;
    Verbosity = 0;  // keep the question off the test's output
  }
  void TearDown() override { Verbosity = 1; }

  // Answers the question with `input` and returns Preserve_dedup_files.
  int answer(const std::string &input) {
    FILE *in = std::tmpfile();
    std::fputs(input.c_str(), in);
    std::rewind(in);
    ask_keep_dedup_files(in);
    std::fclose(in);
    return Preserve_dedup_files;
  }
};

// "<y>" is the answer at end of input only: a bare Enter does not keep.
TEST_F(PostRestoreDedupQuestionTest, AnswersAndEndOfInput) {
  const struct {
    const char *input;
    int keep;
  } cases[] = {{"Yes\n", 1}, {"y\n", 1}, {"\n", 0}, {"no\n", 0}, {"", 1}};
  for (const auto &c : cases) {
    Prompt_for_dedup_files = 0;
    Preserve_dedup_files = 0;
    EXPECT_EQ(c.keep, answer(c.input)) << "answer '" << c.input << "'";
    EXPECT_EQ(1, Prompt_for_dedup_files);
  }
}

}  // namespace
