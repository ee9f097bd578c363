// Failures of the driver, the file system and the log, and which of them
// end the run; -r stopped part way by a kill, an interrupt or a full log.
// Whatever fails, a file is gone only if the log names it: the log is
// written ahead of each unlink, and never with a half line.
#include <signal.h>
#include <unistd.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <set>
#include <utility>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::log_header;
using toolrun::ToolFs;
using vdtest::SplitLines;
using PostRestoreFaultTest = toolrun::ToolTest;

TEST_F(PostRestoreFaultTest, FailuresThatEndTheRunOrAreReported) {
  const struct {
    const char *faults;
    bool remove, relation_point;
    int status;
    std::string err;  // "<d1>" and "<mnt>" stand for those paths
    bool reported;    // whether d1/f is in the log
  } cases[] = {
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=EPERM", false, false, 1,
       "Failed to get xattr for directory <d1>: Operation not permitted.\n", false},
      // Without the mount table the library cannot find the file system,
      // so nothing tells where the tree lies in it.
      {"kind=ioctl,code=0x8010e693,errno=EIO", true, true, 1,
       "Failed to find the file system of <mnt>: No such file or directory.\n", false},
      // Without an inherited policy the first open of a directory is the one
      // that reads its own policy attribute.
      {"kind=open,path=/d1,count=1,errno=EMFILE", false, false, 1,
       "get_dir_vdp: Cannot open <d1>, Too many open files\n", false},
      {"kind=dmig,code=7,path=/d1,errno=EIO", false, false, 1,
       "Failed to get path-to-handle for directory <d1>: Input/output error.\n", false},
      {"kind=unlink,path=/d1/f,errno=EACCES", true, false, 1,
       "Failed to remove file <d1>/f: Permission denied.\n", false},
      // A policy that cannot be read may keep copies elsewhere: nothing
      // below the directory is reported.
      {"kind=ioctl,code=1038,name=BFST,path=/d1,errno=EIO", true, false, 0,
       "Failed to get xattr for directory <d1>: Input/output error.\n", false},
      // A missing "VDEA" is no relation point, however the driver says so.
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=ENODATA", true, true, 0, "", true},
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=ENOENT", true, true, 0, "", true},
  };
  for (const auto &c : cases) {
    ToolFs one;
    one.blockless("d1/f", 100);
    if (c.relation_point) one.relation_point("d1");
    CmdResult r =
        one.run(c.remove ? std::vector<std::string>{"-r"} : std::vector<std::string>{}, c.faults);
    std::string err = c.err;
    for (auto [name, value] : {std::pair{"<d1>", one.Path("d1")}, {"<mnt>", one.mnt()}}) {
      if (auto at = err.find(name); at != std::string::npos) err.replace(at, strlen(name), value);
    }
    EXPECT_EQ(c.status, r.exit_code) << c.faults;
    EXPECT_EQ(err, r.err) << c.faults;
    EXPECT_EQ(log_header(one.mnt(), c.remove) + (c.reported ? one.Path("d1/f") + "\n" : ""),
              one.log())
        << c.faults;
    EXPECT_EQ(!(c.remove && c.reported), one.Exists("d1/f")) << c.faults;
  }
}

// The log is the only record of what was reported: a log that is no
// regular file (where lines vanish, or a FIFO that would block the run for
// good) is refused before anything is done, and so is a link that any user
// could have planted in a shared directory to have root truncate its
// target.
TEST_F(PostRestoreFaultTest, LogThatIsNoPlaceForALogIsRefusedAtOnce) {
  fs.blockless("d1/f", 100);
  const std::string fifo = fs.root() + "/fifo", shared = fs.root() + "/shared";
  const std::string victim = fs.root() + "/victim", planted = shared + "/planted";
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  ASSERT_EQ(0, ::mkdir(shared.c_str(), 01777));
  ASSERT_EQ(0, ::chmod(shared.c_str(), 01777));
  std::ofstream(victim) << "precious\n";
  ASSERT_EQ(0, ::symlink(victim.c_str(), planted.c_str()));
  ASSERT_EQ(0, ::lchown(planted.c_str(), 65534, 65534));
  const std::pair<std::string, std::string> cases[] = {
      {"/dev/full", "/dev/full is not a regular file"},
      {fifo, fifo + " is not a regular file"},
      {planted, planted + " is a symbolic link in a world-writable sticky directory, owned by "
                          "neither root nor the directory's owner"},
  };
  for (const auto &[log, reason] : cases) {
    CmdResult r = fs.tool({"-r", "-f", log, fs.mnt()});
    EXPECT_EQ(1, r.exit_code);
    EXPECT_EQ("Failed to open logfile /usr/vexo/logs/vdpostrestore.out: " + reason + ".\n", r.err);
  }
  EXPECT_EQ("precious\n", vdtest::ReadFile(victim));
  EXPECT_TRUE(fs.Exists("d1/f")) << "nothing may be removed without a log";
  // The same link made by root is followed, as always.
  ASSERT_EQ(0, ::lchown(planted.c_str(), 0, 0));
  EXPECT_EQ(0, fs.tool({"-f", planted, fs.mnt()}).exit_code);
  EXPECT_EQ(log_header(fs.mnt(), false) + fs.Path("d1/f") + "\n", vdtest::ReadFile(victim));
}

// With standard output closed, the log would be opened on its number and
// receive the progress messages.
TEST_F(PostRestoreFaultTest, ClosedStandardOutputKeepsMessagesOutOfTheLog) {
  fs.blockless("d1/f", 100);
  CmdResult r = fs.run({"-r"}, "", {}, {"/bin/sh", "-c", "exec \"$@\" >&-", "sh"});
  EXPECT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(log_header(fs.mnt(), true) + fs.Path("d1/f") + "\n", fs.log());
}

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
    CmdResult r = fs.run(
        {"-r"}, "kind=unlink,skip=" + std::to_string(kill_at) + ",count=1,run=kill -9 $PPID");
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
  CmdResult r = fs.run({"-r"}, "kind=unlink,skip=3,count=1,run=kill -INT $PPID");
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
