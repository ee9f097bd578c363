// -r stopped part way: a kill, an interrupt, a full log. The log written
// ahead of each unlink must name every removed file and no half line.
#include <signal.h>
#include <sys/stat.h>

#include <set>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using vdtest::SplitLines;

class PostRestoreRemovalTest : public toolrun::ToolTest {
 protected:
  // Blockless files d/f0 ... d/f<n-1>.
  void make_files(int n) {
    for (int f = 0; f < n; ++f) {
      if (!fs.Exists(name(f))) fs.blockless(name(f), 100);
    }
  }
  std::set<std::string> removed(int n) const {
    std::set<std::string> gone;
    for (int f = 0; f < n; ++f) {
      if (!fs.Exists(name(f))) gone.insert(fs.Path(name(f)));
    }
    return gone;
  }
  static std::string name(int f) { return "d" + std::to_string(f % 4) + "/f" + std::to_string(f); }
};

// A run killed at any point has logged every file it removed; at most its
// last line names the file whose unlink the kill cut short.
TEST_F(PostRestoreRemovalTest, KilledRunHasLoggedEveryRemovedFile) {
  for (int kill_at = 0; kill_at < 40; kill_at += 3) {
    make_files(40);
    // The unlink request kill_at + 1 kills the tool before the file goes
    // (the rule's shell is the tool's child).
    CmdResult r =
        fs.tool({"-r", "-f", fs.log_path(), fs.mnt()},
                "kind=unlink,skip=" + std::to_string(kill_at) + ",count=1,run=kill -9 $PPID");
    ASSERT_TRUE(r.killed_by(SIGKILL)) << "the tool was not killed: " << r.err;
    const std::set<std::string> gone = removed(40);
    const std::vector<std::string> lines = SplitLines(fs.log());
    ASSERT_EQ(3u + gone.size() + 1, lines.size()) << "kill at " << kill_at;
    EXPECT_EQ(gone, std::set<std::string>(lines.begin() + 3, lines.end() - 1));
    EXPECT_EQ(0u, gone.count(lines.back())) << "the last line names the file not yet gone";
  }
}

// SIGINT finishes the file in hand, then stops: the log is exact.
TEST_F(PostRestoreRemovalTest, InterruptedRunStopsWithAnExactLog) {
  make_files(10);
  CmdResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()},
                        "kind=unlink,skip=3,count=1,run=kill -INT $PPID");
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("Interrupted by SIGINT.\n", r.err);
  const std::vector<std::string> lines = SplitLines(fs.log());
  ASSERT_GE(lines.size(), 3u);
  EXPECT_EQ(4u, removed(10).size());
  EXPECT_EQ(removed(10), std::set<std::string>(lines.begin() + 3, lines.end()));
}

// A log that fills up mid-line is cut back to its last whole line, and the
// file whose line did not fit stays. The log is on a one-page tmpfs in a
// private mount namespace (root only; skipped where none can be made).
TEST_F(PostRestoreRemovalTest, FullLogStopsBeforeTheUnlinkAndLeavesNoHalfLine) {
  const int files = 200;  // more lines than one page holds
  make_files(files);
  const std::string small = fs.root() + "/small", copy = fs.root() + "/log-copy";
  ASSERT_EQ(0, ::mkdir(small.c_str(), 0700));
  CmdResult r = fs.tool({"-r", "-f", small + "/log", fs.mnt()}, "", {},
                        toolrun::in_private_mounts("mount -t tmpfs -o size=4k tmpfs " + small,
                                                   "cp " + small + "/log " + copy));
  if (toolrun::no_private_mounts(r)) GTEST_SKIP() << "no private mount namespace: " << r.err;
  EXPECT_EQ(1, r.exit_code);
  EXPECT_NE(std::string::npos,
            r.err.find("Failed to write logfile " + small + "/log: No space left on device.\n"))
      << r.err;
  EXPECT_NE(std::string::npos, r.err.find(" was not removed.\n")) << r.err;
  const std::string log = vdtest::ReadFile(copy);
  ASSERT_FALSE(log.empty());
  EXPECT_EQ('\n', log.back()) << "no half line";
  const std::vector<std::string> lines = SplitLines(log);
  EXPECT_FALSE(removed(files).empty());
  EXPECT_EQ(removed(files), std::set<std::string>(lines.begin() + 3, lines.end()));
}

}  // namespace
