// The walk and the file rules in directories without policy or relation
// point: which files are reported and removed, what is printed at each
// verbosity, and what the walk must not follow.
#include <sys/stat.h>

#include <algorithm>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::grep;
using toolrun::log_header;
using vdtest::SplitLines;

std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

class PostRestoreWalkTest : public toolrun::ToolTest {
 protected:
  // The file paths listed in the log after its header, sorted.
  std::vector<std::string> logged(bool removed = false) const {
    const std::string log = fs.log(), header = log_header(fs.mnt(), removed);
    EXPECT_EQ(header, log.substr(0, header.size()));
    return sorted(SplitLines(log.substr(std::min(header.size(), log.size()))));
  }
};

TEST_F(PostRestoreWalkTest, ReportsAndRemovesOnlyFilesWithSizeAndNoBlocks) {
  fs.blockless("hole", 100);
  fs.allocated("full");
  fs.allocated("empty", "");
  fs.blockless(".hidden", 1);
  fs.blockless(".hdir/deep/inner", 4096);
  const auto reported = sorted({fs.Path("hole"), fs.Path(".hidden"), fs.Path(".hdir/deep/inner")});
  CmdResult r = fs.tool({"-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(reported, logged());
  EXPECT_EQ(1u, grep(r.out, "  Would remove file " + fs.Path("hole") + ".").size());
  EXPECT_TRUE(fs.Exists("hole")) << "a dry run removes nothing";

  r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(reported, logged(true));
  EXPECT_EQ(1u, grep(r.out, "  Removing file " + fs.Path("hole") + ".").size());
  EXPECT_TRUE(grep(r.out, "Would remove").empty());
  for (const char *rel : {"hole", ".hidden", ".hdir/deep/inner"}) EXPECT_FALSE(fs.Exists(rel));
  EXPECT_TRUE(fs.Exists("full") && fs.Exists("empty"));
}

// Level 1 is the default and -v adds nothing; -vv explains every entry,
// -vvv adds the opendir calls.
TEST_F(PostRestoreWalkTest, VerbosityLevels) {
  fs.blockless("d/f", 100);
  fs.allocated("full");
  fs.allocated("empty", "");
  struct stat st;
  ASSERT_EQ(0, stat(fs.Path("full").c_str(), &st));
  const std::string m = fs.mnt();
  const std::vector<std::string> level1 = {
      "Got mount point " + m + ".", "Processing directory " + m + ".",
      "Processing directory " + m + "/d.", "  Would remove file " + m + "/d/f."};
  for (auto args : {std::vector<std::string>{}, {"-v"}}) {
    args.insert(args.end(), {"-f", fs.log_path(), m});
    CmdResult r = fs.tool(args);
    ASSERT_EQ(0, r.exit_code) << r.err;
    EXPECT_EQ(level1, SplitLines(r.out)) << "no level-2 messages exist";
  }
  CmdResult r3 = fs.tool({"-v", "-v", "-f", fs.log_path(), m});
  std::vector<std::string> level3 = level1;
  level3.insert(
      level3.end(),
      {"Not a relation point, no attributes found for directory " + m + ".",
       "Not a relation point, no attributes found for directory " + m + "/d.",
       "Got directory entry: .", "Got directory entry: .", "  Skipping entry.", "  Skipping entry.",
       "Got directory entry: ..", "Got directory entry: ..", "  Skipping entry.",
       "  Skipping entry.", "Got directory entry: d", "Recursing, found a directory.",
       "Got directory entry: f", "Got directory entry: full",
       "  File has non-zero allocation of " + std::to_string(st.st_blocks) + " blocks, Skipping.",
       "Got directory entry: empty", "  File has zero length, Skipping."});
  EXPECT_EQ(sorted(level3), sorted(SplitLines(r3.out)));
  EXPECT_EQ(log_header(m, false) + m + "/d/f\n", fs.log());

  CmdResult r4 = fs.tool({"-vvv", "-f", fs.log_path(), m});
  EXPECT_EQ(2u, grep(r4.out, "Calling opendir.").size());
  EXPECT_EQ(level3.size() + 2, SplitLines(r4.out).size());
}

TEST_F(PostRestoreWalkTest, SymbolicLinksAndSpecialFilesAreNotFollowed) {
  fs.blockless("hole", 100);
  const std::string outside = fs.root() + "/outside";
  ASSERT_TRUE(fs.MakeFile("../outside/victim", 100, false));
  ASSERT_EQ(0, symlink(outside.c_str(), fs.Path("link-to-dir").c_str()));
  ASSERT_EQ(0, symlink(fs.Path("hole").c_str(), fs.Path("link-to-file").c_str()));
  ASSERT_EQ(0, symlink("dangling-target", fs.Path("dangling").c_str()));
  ASSERT_EQ(0, mkfifo(fs.Path("fifo").c_str(), 0600));
  CmdResult r = fs.tool({"-vv", "-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(4u, grep(r.out, "  Not a regular file, Skipping.").size());
  EXPECT_TRUE(grep(r.out, "Processing directory " + fs.Path("link-to-dir")).empty());
  EXPECT_EQ(std::vector<std::string>{fs.Path("hole")}, logged(true));
  EXPECT_TRUE(fs.Exists("../outside/victim"));
  EXPECT_TRUE(fs.Exists("link-to-file"));
}

// One descriptor per level of depth: a wide tree needs no more than a deep
// one, and a tree deeper than the descriptors allow stops with that cause.
TEST_F(PostRestoreWalkTest, DescriptorsFollowTheDepthNotTheWidth) {
  for (int i = 0; i < 150; ++i) fs.blockless("w" + std::to_string(i) + "/sub/f", 10);
  toolrun::RunOptions opts;
  opts.max_open_files = 20;
  CmdResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(150u, logged(true).size());

  std::string rel = "d";
  for (int i = 0; i < 60; ++i) rel += "/d";
  fs.blockless(rel + "/f", 10);
  opts.max_open_files = 40;
  r = fs.tool({"-f", fs.log_path(), fs.mnt()}, "", opts);
  EXPECT_EQ(1, r.exit_code);
  EXPECT_FALSE(grep(r.err, "Too many open files").empty()) << r.err;
  EXPECT_EQ(1u, grep(r.err, "The tree is deeper than the limit of 40 open files allows.").size())
      << r.err;
}

// No length stops the walk: beyond the 1023 characters a path request
// takes, the directory is resolved through its descriptor and its policy
// handle through the mount point; messages and the log carry the whole path.
TEST_F(PostRestoreWalkTest, PathsLongerThanPathRequestsAreWalked) {
  std::string rel;
  while (fs.Path(rel).size() < 1600) rel += (rel.empty() ? "" : "/") + std::string(200, 'd');
  fs.blockless(rel + "/hole", 10);
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir(rel + "/keyed", 7);
  fs.blockless(rel + "/keyed/hole", 10);
  fs.relation_point(rel + "/rp");
  fs.blockless(rel + "/rp/kept", 10);
  CmdResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(sorted({fs.Path(rel + "/hole"), fs.Path(rel + "/keyed/hole")}), logged(true));
  EXPECT_FALSE(fs.Exists(rel + "/hole"));
  EXPECT_TRUE(fs.Exists(rel + "/rp/kept"));
}

// A line break in a name must not split a log line into two that name
// other files: such paths are shell-quoted, one per line.
TEST_F(PostRestoreWalkTest, PathsWithLineBreaksAreQuotedOnOneLine) {
  fs.blockless("nl\n/fs/keep_me", 100);
  fs.blockless("cr\r", 100);
  fs.allocated("fs/keep_me");
  CmdResult r = fs.tool({"-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(sorted({"$'" + fs.Path("cr\\r") + "'", "$'" + fs.Path("nl\\n/fs/keep_me") + "'"}),
            logged());
  EXPECT_EQ(1u, grep(r.out, "  Would remove file $'" + fs.Path("nl\\n/fs/keep_me") + "'.").size());
}

}  // namespace
