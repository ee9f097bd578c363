// The walk and the file rules in directories without policy or relation
// point: which files are reported, what is printed at each verbosity.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tool_harness.h"

namespace {

using toolrun::grep;
using toolrun::lines_of;
using toolrun::RunResult;
using toolrun::SimFs;

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

class PostRestoreWalkTest : public ::testing::Test {
 protected:
  // The file paths listed in the log after its three header lines.
  std::vector<std::string> logged() {
    auto lines = lines_of(fs.log());
    if (lines.size() < 3) return {};
    return sorted({lines.begin() + 3, lines.end()});
  }
  SimFs fs;
};

TEST_F(PostRestoreWalkTest, ReportsOnlyFilesWithSizeAndNoBlocks) {
  fs.blockless("hole", 100);
  fs.allocated("full");
  fs.allocated("empty", "");
  fs.blockless(".hidden", 1);
  fs.blockless(".hdir/deep/inner", 4096);
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(sorted({fs.path("hole"), fs.path(".hidden"), fs.path(".hdir/deep/inner")}), logged());
  EXPECT_EQ(toolrun::log_header(fs.mnt(), false),
            fs.log().substr(0, toolrun::log_header(fs.mnt(), false).size()));
  EXPECT_EQ(1u, grep(r.out, "  Would remove file " + fs.path("hole") + ".").size());
  EXPECT_TRUE(fs.exists("hole")) << "a dry run removes nothing";
}

TEST_F(PostRestoreWalkTest, ExplainsEachFileAtVerbosityThree) {
  fs.allocated("full");
  fs.allocated("empty", "");
  struct stat st;
  ASSERT_EQ(0, stat(fs.path("full").c_str(), &st));
  RunResult r = fs.tool({"-vv", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  const std::string m = fs.mnt();
  std::vector<std::string> expected = {
      "Got mount point " + m + ".",
      "Processing directory " + m + ".",
      "Not a relation point, no attributes found for directory " + m + ".",
      "Got directory entry: .",
      "  Skipping entry.",
      "Got directory entry: ..",
      "  Skipping entry.",
      "Got directory entry: full",
      "  File has non-zero allocation of " + std::to_string(st.st_blocks) + " blocks, Skipping.",
      "Got directory entry: empty",
      "  File has zero length, Skipping.",
  };
  EXPECT_EQ(sorted(expected), sorted(lines_of(r.out)));
  EXPECT_EQ(toolrun::log_header(m, false), fs.log());
}

TEST_F(PostRestoreWalkTest, VerbosityLevels) {
  fs.blockless("d/f", 100);
  const std::string m = fs.mnt();
  const std::string level1 = "Got mount point " + m + ".\nProcessing directory " + m +
                             ".\nProcessing directory " + m + "/d.\n  Would remove file " + m +
                             "/d/f.\n";
  for (auto args : {std::vector<std::string>{}, {"-v"}}) {
    args.insert(args.end(), {"-f", fs.log_path(), m});
    RunResult r = fs.tool(args);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(level1, r.out) << "no level-2 messages exist";
  }
  RunResult r3 = fs.tool({"-v", "-v", "-f", fs.log_path(), m});
  EXPECT_EQ(1u, grep(r3.out, "Recursing, found a directory.").size());
  EXPECT_EQ(6u, grep(r3.out, "Got directory entry: ").size());  // ., .. twice; d; f
  EXPECT_TRUE(grep(r3.out, "Calling opendir.").empty());

  RunResult r4 = fs.tool({"-vvv", "-f", fs.log_path(), m});
  EXPECT_EQ(2u, grep(r4.out, "Calling opendir.").size());
  EXPECT_EQ(lines_of(r3.out).size() + 2, lines_of(r4.out).size());
}

TEST_F(PostRestoreWalkTest, SymbolicLinksAndSpecialFilesAreNotFollowed) {
  fs.blockless("hole", 100);
  std::string outside = (fs.root() / "outside").string();
  toolrun::make_blockless(outside + "/victim", 100);
  fs.symlink(outside, "link-to-dir");
  fs.symlink(fs.path("hole"), "link-to-file");
  fs.symlink("dangling-target", "dangling");
  ASSERT_EQ(0, mkfifo(fs.path("fifo").c_str(), 0600));
  RunResult r = fs.tool({"-vv", "-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(4u, grep(r.out, "  Not a regular file, Skipping.").size());
  EXPECT_TRUE(grep(r.out, "Processing directory " + fs.path("link-to-dir")).empty());
  EXPECT_EQ(std::vector<std::string>{fs.path("hole")}, logged());
  EXPECT_TRUE(std::filesystem::exists(outside + "/victim"));
  EXPECT_TRUE(fs.exists("link-to-file"));
}

// One descriptor per level of depth: a wide tree must not need more than a
// deep one.
TEST_F(PostRestoreWalkTest, DescriptorsDoNotGrowWithTheTree) {
  for (int i = 0; i < 150; ++i) fs.blockless("w" + std::to_string(i) + "/sub/f", 10);
  toolrun::RunOptions opts;
  opts.max_open_files = 20;
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "", opts);
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(150u, logged().size());
}

// No length stops the walk: beyond the 1023 characters a path request
// takes, the directory is resolved through its descriptor and its policy
// handle through the mount point; messages and the log carry the whole path.
TEST_F(PostRestoreWalkTest, PathsLongerThanPathRequestsAreWalked) {
  std::string rel;
  while (fs.path(rel).size() < 1600) rel += (rel.empty() ? "" : "/") + std::string(200, 'd');
  fs.mkdir(rel);
  fs.blockless(rel + "/hole", 10);
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir(rel + "/keyed", 7);
  fs.blockless(rel + "/keyed/hole", 10);
  fs.relation_point(rel + "/rp");
  fs.blockless(rel + "/rp/kept", 10);
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(sorted({fs.path(rel + "/hole"), fs.path(rel + "/keyed/hole")}), logged());
  EXPECT_FALSE(fs.exists(rel + "/hole"));
  EXPECT_TRUE(fs.exists(rel + "/rp/kept"));
}

// A tree deeper than the descriptors allow stops with that cause named.
TEST_F(PostRestoreWalkTest, TreeDeeperThanTheDescriptorLimitNamesTheCause) {
  std::string rel = "d";
  for (int i = 0; i < 60; ++i) rel += "/d";
  fs.blockless(rel + "/f", 10);
  toolrun::RunOptions opts;
  opts.max_open_files = 40;
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()}, "", opts);
  EXPECT_EQ(1, r.status);
  EXPECT_FALSE(grep(r.err, "Too many open files").empty()) << r.err;
  EXPECT_EQ(1u, grep(r.err, "The tree is deeper than the limit of 40 open files allows.").size())
      << r.err;
}

// A line break in a name must not split a log line into two that name
// other files: such paths are shell-quoted, one per line.
TEST_F(PostRestoreWalkTest, PathsWithLineBreaksAreQuotedOnOneLine) {
  fs.blockless("nl\n/fs/keep_me", 100);
  fs.blockless("cr\r", 100);
  fs.allocated("fs/keep_me");
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(sorted({"$'" + fs.path("cr\\r") + "'", "$'" + fs.path("nl\\n/fs/keep_me") + "'"}),
            logged());
  EXPECT_EQ(1u, grep(r.out, "  Would remove file $'" + fs.path("nl\\n/fs/keep_me") + "'.").size());
}

}  // namespace
