#include "libutil/priv_check.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "support/test_support.h"

namespace {

using vdtest::RunInChild;

class PrivCheckTest : public ::testing::Test {
 protected:
  void TearDown() override { set_caller_name(saved_); }
  const char *saved_ = CallerName;
};

TEST_F(PrivCheckTest, CallerNameStartsAsLibutilAndIsStoredNotCopied) {
  EXPECT_STREQ("libutil", CallerName);
  static char name[] = "/usr/bin/tool";
  set_caller_name(name);
  EXPECT_EQ(name, CallerName);
}

// Only the effective user id counts: a root that dropped it is not privileged.
TEST_F(PrivCheckTest, FollowsTheEffectiveUid) {
  EXPECT_EQ(geteuid() == 0 ? 1 : 0, PrivCheck());
  if (geteuid() != 0) GTEST_SKIP() << "needs root to change the effective uid";
  auto r = RunInChild([] {
    if (setresuid(0, 65534, 0) != 0) _exit(2);
    std::printf("%d %d", static_cast<int>(getuid()), PrivCheck());
  });
  ASSERT_TRUE(r.exited_with(0)) << r.err;
  EXPECT_EQ("0 0", r.out);
}

}  // namespace
