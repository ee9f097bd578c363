// The walk and the file rules in directories without policy: which files
// are reported and removed, what is printed at each verbosity, what the walk
// must not follow, and storage-manager relation points (a directory whose
// "VDEA" comes with the create, remove and link events, and everything
// below it).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <regex>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::grep;
using toolrun::sorted;
using vdtest::SplitLines;
using PostRestoreWalkTest = toolrun::ToolTest;
using PostRestoreRelationPointTest = toolrun::ToolTest;

// Files with a size and no blocks are reported, hidden ones too. Level 1 is
// the default and -v adds nothing; -vv explains every entry, -vvv adds the
// opendir calls. Trailing slashes of the mount point go; options may follow
// it, and a second argument is ignored.
TEST_F(PostRestoreWalkTest, ReportsAtEachVerbosityAndRemovesWithR) {
  fs.blockless(".d/f", 100);
  fs.blockless(".h", 1);
  fs.allocated("full");
  fs.allocated("empty", "");
  struct stat st;
  ASSERT_EQ(0, stat(fs.Path("full").c_str(), &st));
  const std::string m = fs.mnt();
  const std::vector<std::string> reported = sorted({m + "/.d/f", m + "/.h"});
  const std::vector<std::string> level1 =
      sorted({"Got mount point " + m + ".", "Processing directory " + m + ".",
              "Processing directory " + m + "/.d.", "  Would remove file " + m + "/.d/f.",
              "  Would remove file " + m + "/.h."});
  CmdResult r = fs.tool({"-f", fs.log_path(), m + "///"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_TRUE(r.out.starts_with("Got mount point " + m + ".\nProcessing directory " + m + ".\n"))
      << r.out;
  EXPECT_EQ(level1, sorted(SplitLines(r.out)));
  EXPECT_EQ(reported, fs.logged());
  EXPECT_EQ(level1, sorted(SplitLines(fs.run({"-v"}).out))) << "no level-2 messages exist";
  std::vector<std::string> level3 = level1;
  level3.insert(
      level3.end(),
      {"Not a relation point, no attributes found for directory " + m + ".",
       "Not a relation point, no attributes found for directory " + m + "/.d.",
       "Got directory entry: .", "Got directory entry: .", "  Skipping entry.", "  Skipping entry.",
       "Got directory entry: ..", "Got directory entry: ..", "  Skipping entry.",
       "  Skipping entry.", "Got directory entry: .d", "Recursing, found a directory.",
       "Got directory entry: f", "Got directory entry: .h", "Got directory entry: full",
       "  File has non-zero allocation of " + std::to_string(st.st_blocks) + " blocks, Skipping.",
       "Got directory entry: empty", "  File has zero length, Skipping."});
  EXPECT_EQ(sorted(level3), sorted(SplitLines(fs.run({"-v", "-v"}).out)));
  CmdResult r4 = fs.run({"-vvv"});
  EXPECT_EQ(2u, grep(r4.out, "Calling opendir.").size());
  EXPECT_EQ(level3.size() + 2, SplitLines(r4.out).size());
  EXPECT_TRUE(fs.Exists(".h")) << "a dry run removes nothing";

  // --summary counts what was reported; with standard error no terminal,
  // no progress line is drawn unless asked for.
  r = fs.run({"--summary", "--no-progress"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_TRUE(std::regex_search(r.out, std::regex("\nSummary: 2 directories, 4 files examined, 2 "
                                                  "listed, 0 removed, 101 bytes claimed, 0 "
                                                  "stripped of policy information, 0 errors, "
                                                  "[0-9]+\\.[0-9] s\\.\n$")))
      << r.out;

  r = fs.tool({m, "ignored-second-argument", "-f", fs.log_path(), "-r", "--summary"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(reported, fs.logged(true));
  EXPECT_EQ(1u, grep(r.out, "  Removing file " + m + "/.h.").size());
  EXPECT_TRUE(grep(r.out, "Would remove").empty());
  EXPECT_EQ(1u, grep(r.out, ", 0 listed, 2 removed, 101 bytes claimed,").size()) << r.out;
  EXPECT_FALSE(fs.Exists(".h") || fs.Exists(".d/f"));
  EXPECT_TRUE(fs.Exists("full") && fs.Exists("empty"));
}

TEST_F(PostRestoreWalkTest, SymbolicLinksAndSpecialFilesAreNotFollowed) {
  fs.blockless("hole", 100);
  const std::string outside = fs.root() + "/outside";
  ASSERT_TRUE(fs.MakeFile("../outside/victim", 100, false));
  ASSERT_EQ(0, symlink(outside.c_str(), fs.Path("link-to-dir").c_str()));
  ASSERT_EQ(0, symlink(fs.Path("hole").c_str(), fs.Path("link-to-file").c_str()));
  ASSERT_EQ(0, symlink("dangling-target", fs.Path("dangling").c_str()));
  ASSERT_EQ(0, mkfifo(fs.Path("fifo").c_str(), 0600));
  CmdResult r = fs.run({"-vv", "-r"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(4u, grep(r.out, "  Not a regular file, Skipping.").size());
  EXPECT_TRUE(grep(r.out, "Processing directory " + fs.Path("link-to-dir")).empty());
  EXPECT_EQ(std::vector<std::string>{fs.Path("hole")}, fs.logged(true));
  EXPECT_TRUE(fs.Exists("../outside/victim"));
  EXPECT_TRUE(fs.Exists("link-to-file"));
}

// One descriptor per level of depth: a wide tree needs no more than a deep
// one, and a tree deeper than the descriptors allow stops with that cause.
TEST_F(PostRestoreWalkTest, DescriptorsFollowTheDepthNotTheWidth) {
  for (int i = 0; i < 150; ++i) fs.blockless("w" + std::to_string(i) + "/sub/f", 10);
  toolrun::RunOptions opts;
  opts.max_open_files = 20;
  CmdResult r = fs.run({"-r"}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(150u, fs.logged(true).size());

  std::string rel = "d";
  for (int i = 0; i < 60; ++i) rel += "/d";
  fs.blockless(rel + "/f", 10);
  opts.max_open_files = 40;
  r = fs.run({}, "", opts);
  EXPECT_EQ(1, r.exit_code);
  EXPECT_FALSE(grep(r.err, "Too many open files").empty()) << r.err;
  EXPECT_EQ(1u, grep(r.err, "The tree is deeper than the limit of 40 open files allows.").size())
      << r.err;
}

// Below `top`, a chain of directories whose path is longer than the kernel
// takes in one call, made and examined through descriptors; `rel` is the
// chain's path below the mount point.
struct DeepChain {
  DeepChain(const toolrun::ToolFs &fs, const std::string &top) : rel(top) {
    int fd = ::open(fs.Path(top).c_str(), O_RDONLY | O_DIRECTORY);
    const std::string name(200, 'd');
    while (fs.Path(rel).size() < 5000) {
      rel += "/" + name;
      EXPECT_EQ(0, ::mkdirat(fd, name.c_str(), 0755));
      const int next = ::openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY);
      ::close(fd);
      fd = next;
    }
    bottom = fd;
  }
  ~DeepChain() { ::close(bottom); }
  void blockless(const char *name) const {
    const int f = ::openat(bottom, name, O_WRONLY | O_CREAT, 0644);
    EXPECT_EQ(0, ::ftruncate(f, 100));
    ::close(f);
  }
  bool exists(const char *name) const {
    struct stat st;
    return ::fstatat(bottom, name, &st, AT_SYMLINK_NOFOLLOW) == 0;
  }
  std::string rel;
  int bottom = -1;
};

// No length stops the walk: beyond the 1023 characters a path request
// takes and the 4095 the kernel takes, a directory is reached through its
// descriptor and its policy handle through the mount point; policies and
// relation points above reach all the way down, and messages and the log
// carry the whole path.
TEST_F(PostRestoreWalkTest, PathsOfAnyLengthAreWalked) {
  fs.policy("key_7", "trunc=on\n");
  fs.policy("key_8", "objs=on,objs_id=cloud1,objs_namespace=bucket1\n");
  fs.keyed_dir("keyed", 7);
  fs.keyed_dir("cloud", 8);
  fs.relation_point("rp");
  ASSERT_TRUE(fs.MakeDir("plain"));
  std::vector<std::unique_ptr<DeepChain>> chains;
  std::vector<std::string> expected;
  for (const char *top : {"plain", "keyed", "cloud", "rp"}) {
    chains.push_back(std::make_unique<DeepChain>(fs, top));
    chains.back()->blockless("hole");
    expected.push_back(fs.Path(chains.back()->rel + "/hole"));
  }
  expected.pop_back();  // under the relation point
  toolrun::RunOptions opts;
  opts.env["KXFSCONF"] = fs.objs_conf_dir();
  CmdResult r = fs.run({"-r"}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err.substr(0, 400);
  // The object-store file has no "BFST": it was never stored, and goes.
  EXPECT_EQ(sorted(expected), fs.logged(true));
  EXPECT_FALSE(chains[0]->exists("hole"));
  EXPECT_TRUE(chains[3]->exists("hole"));
}

// A line break in a name must not split a log line into two that name
// other files: such paths are shell-quoted, one per line.
TEST_F(PostRestoreWalkTest, PathsWithLineBreaksAreQuotedOnOneLine) {
  fs.blockless("nl\n/fs/keep_me", 100);
  fs.allocated("fs/keep_me");
  CmdResult r = fs.run();
  ASSERT_EQ(0, r.exit_code) << r.err;
  const std::string shown = "$'" + fs.Path("nl\\n/fs/keep_me") + "'";
  EXPECT_EQ(std::vector<std::string>{shown}, fs.logged());
  EXPECT_EQ(1u, grep(r.out, "  Would remove file " + shown + ".").size());
}

// Only "VDEA" with all three events makes a relation point; below one,
// nothing is touched or even asked about.
TEST_F(PostRestoreRelationPointTest, EverythingBelowARelationPointIsLeftAlone) {
  fs.relation_point("rp");
  // The largest value the driver keeps still fits the tool's buffer.
  fs.sim({"attr", "set", fs.Path("rp"), "VDEA", std::string(2 * 128, 'a')});
  fs.blockless("rp/f", 100);
  fs.blockless("rp/sub/g", 100);
  fs.blockless("rp/sub/deeper/h", 100);
  fs.relation_point("half", false);
  fs.sim({"events", "set", fs.Path("half"), "0x1100"});  // remove and link, no create
  fs.blockless("half/x", 100);
  fs.blockless("plain/y", 100);
  // "VDEA" is there but the events cannot be read: the directory may be a
  // relation point, so nothing below it is reported or asked about.
  CmdResult r = fs.run({}, "kind=ioctl,code=1036,path=/rp,errno=EPERM");
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(
      "Failed to get attributes for directory " + fs.Path("rp") + ": Operation not permitted.\n",
      r.err);
  EXPECT_EQ(sorted({fs.Path("half/x"), fs.Path("plain/y")}), fs.logged());
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("rp/sub") + " name=VDEA"}).empty()) << "not asked again";
  EXPECT_EQ(fs.run({}).out, fs.run({"-v"}).out) << "-v adds no message";

  r = fs.run({"-vv", "-r"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(fs.Exists("rp/f") && fs.Exists("rp/sub/g") && fs.Exists("rp/sub/deeper/h"));
  EXPECT_FALSE(fs.Exists("half/x") || fs.Exists("plain/y"));
  EXPECT_EQ(2u, grep(r.out, "Dir has attributes.").size());
  EXPECT_EQ(1u,
            grep(r.out, "Directory " + fs.Path("rp") + " is under a SM relation point.").size());
  EXPECT_EQ(
      1u,
      grep(r.out, "Directory " + fs.Path("half") + " is not under a SM relation point.").size());
  EXPECT_EQ(1u, grep(r.out, "Not a relation point, no attributes found for directory " +
                                fs.Path("plain") + ".")
                    .size());
  EXPECT_EQ(3u, grep(r.out, "  File is managed by SM, Skipping.").size());

  // Directories below the relation point are not asked again: four
  // directories (the mount point, rp, half, plain) are resolved and read.
  const std::string requests = vdtest::ReadFile(fs.LogPath());
  EXPECT_EQ(4u, fs.LogLinesWith({"name=VDEA"}).size()) << requests;
  std::size_t path_to_handle = 0;  // flags 1; the mount cache asks with flags 0
  for (const auto &line : fs.LogLinesWith({" flags=1 "})) {
    path_to_handle += line.starts_with("dmig 0x7 ");
  }
  EXPECT_EQ(4u, path_to_handle) << requests;
  for (const auto &line : fs.LogLinesWith({"rp/sub"})) {
    EXPECT_EQ(std::string::npos, line.find("name=VDEA")) << line;
    EXPECT_FALSE(line.starts_with("dmig 0x7 ")) << line;
  }
}

}  // namespace
