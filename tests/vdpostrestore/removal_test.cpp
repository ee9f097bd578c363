// -r: removals and the log that records them.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "tool_harness.h"

namespace {

using toolrun::grep;
using toolrun::lines_of;
using toolrun::RunResult;
using toolrun::SimFs;

class PostRestoreRemovalTest : public ::testing::Test {
 protected:
  std::set<std::string> logged() {
    auto lines = lines_of(fs.log());
    if (lines.size() < 3) return {};
    return {lines.begin() + 3, lines.end()};
  }
  SimFs fs;
};

TEST_F(PostRestoreRemovalTest, RemovesAndLogsBlocklessFilesOnly) {
  fs.blockless("hole", 100);
  fs.blockless("sub/.hidden", 7);
  fs.allocated("sub/full");
  fs.allocated("empty", "");
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ((std::set<std::string>{fs.path("hole"), fs.path("sub/.hidden")}), logged());
  EXPECT_EQ(toolrun::log_header(fs.mnt(), true),
            fs.log().substr(0, toolrun::log_header(fs.mnt(), true).size()));
  EXPECT_FALSE(fs.exists("hole"));
  EXPECT_FALSE(fs.exists("sub/.hidden"));
  EXPECT_TRUE(fs.exists("sub/full") && fs.exists("empty"));
  EXPECT_EQ(1u, grep(r.out, "  Removing file " + fs.path("hole") + ".").size());
  EXPECT_TRUE(grep(r.out, "Would remove").empty());
}

// A run killed at any point has logged every file it removed; at most its
// last line names the file whose unlink the kill cut short.
TEST_F(PostRestoreRemovalTest, KilledRunHasLoggedEveryRemovedFile) {
  std::vector<std::string> all;
  for (int d = 0; d < 4; ++d)
    for (int f = 0; f < 10; ++f) all.push_back("d" + std::to_string(d) + "/f" + std::to_string(f));
  for (int kill_at = 0; kill_at < 40; kill_at += 3) {
    for (const auto &rel : all)
      if (!fs.exists(rel)) fs.blockless(rel, 100);
    // The unlink request kill_at + 1 kills the tool before the file goes
    // (the rule's shell is the tool's child).
    RunResult r =
        fs.tool({"-r", "-f", fs.log_path(), fs.mnt()},
                "kind=unlink,skip=" + std::to_string(kill_at) + ",count=1,run=kill -9 $PPID");
    ASSERT_EQ(128 + 9, r.status) << "the tool was not killed: " << r.err;
    std::set<std::string> removed;
    for (const auto &rel : all)
      if (!fs.exists(rel)) removed.insert(fs.path(rel));
    const std::vector<std::string> lines = lines_of(fs.log());
    ASSERT_EQ(3u + removed.size() + 1, lines.size()) << "kill at " << kill_at;
    EXPECT_EQ(removed, std::set<std::string>(lines.begin() + 3, lines.end() - 1));
    EXPECT_EQ(0u, removed.count(lines.back())) << "the last line names the file not yet gone";
  }
}

// SIGINT finishes the file in hand, then stops: the log is exact.
TEST_F(PostRestoreRemovalTest, InterruptedRunStopsWithAnExactLog) {
  for (int f = 0; f < 10; ++f) fs.blockless("d/f" + std::to_string(f), 100);
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()},
                        "kind=unlink,skip=3,count=1,run=kill -INT $PPID");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Interrupted by SIGINT.\n", r.err);
  std::set<std::string> removed;
  for (int f = 0; f < 10; ++f)
    if (!fs.exists("d/f" + std::to_string(f))) removed.insert(fs.path("d/f" + std::to_string(f)));
  EXPECT_EQ(4u, removed.size());
  EXPECT_EQ(removed, logged());
}

// A log that fills up mid-line is cut back to its last whole line, and the
// file whose line did not fit stays. The log is on a one-page tmpfs in a
// private mount namespace (root only; skipped where none can be made).
TEST_F(PostRestoreRemovalTest, FullLogStopsBeforeTheUnlinkAndLeavesNoHalfLine) {
  const int files = 200;  // more lines than one page holds
  for (int f = 0; f < files; ++f) fs.blockless("d/f" + std::to_string(f), 100);
  const std::string small = fs.root().string() + "/small";
  const std::string copy = fs.root().string() + "/log-copy";
  ASSERT_EQ(0, ::mkdir(small.c_str(), 0700));
  toolrun::RunOptions opts;
  opts.wrapper = toolrun::in_private_mounts("mount -t tmpfs -o size=4k tmpfs " + small,
                                            "cp " + small + "/log " + copy);
  RunResult r = fs.tool({"-r", "-f", small + "/log", fs.mnt()}, "", opts);
  if (toolrun::no_private_mounts(r))
    GTEST_SKIP() << "no private mount namespace: " << r.err;
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos,
            r.err.find("Failed to write logfile " + small + "/log: No space left on device.\n"))
      << r.err;
  EXPECT_NE(std::string::npos, r.err.find(" was not removed.\n")) << r.err;
  const std::string log = toolrun::read_file(copy);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ('\n', log.back()) << "no half line";
  const std::vector<std::string> lines = lines_of(log);
  std::set<std::string> removed;
  for (int f = 0; f < files; ++f)
    if (!fs.exists("d/f" + std::to_string(f))) removed.insert(fs.path("d/f" + std::to_string(f)));
  EXPECT_FALSE(removed.empty());
  EXPECT_EQ(removed, std::set<std::string>(lines.begin() + 3, lines.end()));
}

}  // namespace
