// -r: removals and the log that records them.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>

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

// A run killed part-way must leave a log that names every file it removed,
// except at most the one it was removing at that moment.
TEST_F(PostRestoreRemovalTest, KilledRunHasLoggedEveryRemovedFile) {
  std::set<std::string> all;
  for (int d = 0; d < 4; ++d) {
    for (int f = 0; f < 10; ++f) {
      std::string rel = "d" + std::to_string(d) + "/f" + std::to_string(f);
      fs.blockless(rel, 100);
      all.insert(rel);
    }
  }
  // The 15th unlink request kills the tool (the rule's shell is its child)
  // before the file goes.
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()},
                        "kind=unlink,skip=14,count=1,run=kill -9 $PPID");
  ASSERT_EQ(128 + 9, r.status) << "the tool was not killed: " << r.err;
  std::set<std::string> removed;
  for (const auto &rel : all) {
    if (!fs.exists(rel)) removed.insert(fs.path(rel));
  }
  EXPECT_EQ(14u, removed.size());
  EXPECT_EQ(removed, logged());
}

}  // namespace
