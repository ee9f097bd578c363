// Start-up of vdpostrestore: privileges, command line, log file, mount
// point and DMAPI session.
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "tool_harness.h"

namespace {

using toolrun::RunOptions;
using toolrun::RunResult;
using toolrun::SimFs;

constexpr char kDefaultLog[] = "/usr/vexo/logs/vdpostrestore.out";

std::string usage_text() {
  return std::string("Usage: vdpostrestore [-f <log file> [-hrv] <mount_point>\n") +
         "-f <log file> specifies alternate file for logging of messages indicating\n"
         "   if a file with no allocation was or was not removed.\n"
         "   Default is " +
         kDefaultLog +
         ".\n"
         "-h print this help and exit.\n"
         "-b keep deduplicated files stored in blockpool.\n"
         "-p preserve vdpolicy information (BLOBs, attributes, event bits)\n"
         "-r remove all files with no allocations under <mount_point>\n"
         "-v be verbose in command output (repeat to increase verbosity)\n"
         "   Normal command output goes to stdout, Error ouptut goes to stderr.\n"
         "\n"
         "Note: Use -r with caution and only under the direction of technical support.\n\n";
}

bool ends_with(const std::string &text, const std::string &tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

class PostRestoreStartupTest : public ::testing::Test {
 protected:
  SimFs fs;
};

TEST_F(PostRestoreStartupTest, NonRootIsRefusedEvenForHelp) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop to another user";
  RunOptions opts;
  opts.as_nobody = true;
  for (auto args : {std::vector<std::string>{"-h"}, {"-f", fs.log_path(), fs.mnt()}}) {
    RunResult r = fs.tool(args, "", opts);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("Insufficient administrative privileges.\n", r.err);
    EXPECT_EQ("", r.out);
  }
  EXPECT_FALSE(std::filesystem::exists(fs.log_path())) << "nothing may happen before the check";
}

TEST_F(PostRestoreStartupTest, HelpAsRootPrintsUsageAndSucceeds) {
  RunResult r = fs.tool({"-h"});
  EXPECT_EQ(0, r.status);
  EXPECT_EQ(usage_text(), r.err);
  EXPECT_EQ("", r.out);
}

// --help and --version answer anyone, on standard output, and do nothing else.
TEST_F(PostRestoreStartupTest, LongHelpAndVersionNeedNoPrivilegesAndSucceed) {
  RunOptions opts;
  opts.as_nobody = geteuid() == 0;
  RunResult r = fs.tool({"--help"}, "", opts);
  EXPECT_EQ(0, r.status);
  EXPECT_EQ(usage_text(), r.out);
  EXPECT_EQ("", r.err);
  r = fs.tool({"-r", "--version", fs.mnt()}, "", opts);
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("vdpostrestore " VD_VERSION
            "\nBuilt for the DMAPI library: KXFS DMAPI (XDSM) API, Release 1.0.\n",
            r.out);
  EXPECT_FALSE(std::filesystem::exists(fs.log_path()));
}

TEST_F(PostRestoreStartupTest, BadCommandLinesPrintUsageAndFail) {
  const std::vector<std::vector<std::string>> bad = {
      {"-x", fs.mnt()}, {fs.mnt(), "-f"}, {}, {"-v", "-r"}, {""}};
  for (const auto &args : bad) {
    RunResult r = fs.tool(args);
    EXPECT_EQ(1, r.status) << ::testing::PrintToString(args);
    EXPECT_TRUE(ends_with(r.err, usage_text())) << ::testing::PrintToString(args) << r.err;
    EXPECT_EQ("", r.out);
  }
}

TEST_F(PostRestoreStartupTest, UnopenableLogIsNamedByTheDefaultPath) {
  RunResult r = fs.tool({"-f", (fs.root() / "no/such/dir/log").string(), fs.mnt()});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(std::string("Failed to open logfile ") + kDefaultLog + ": No such file or directory.\n",
            r.err);
}

TEST_F(PostRestoreStartupTest, RegularFileAsMountPointLeavesHeaderOnly) {
  fs.allocated("plain");
  RunResult r = fs.tool({"-f", fs.log_path(), fs.path("plain")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(fs.path("plain") + " is not a directory.\n", r.err);
  EXPECT_EQ(toolrun::log_header(fs.path("plain"), false), fs.log());
}

TEST_F(PostRestoreStartupTest, MissingMountPointLeavesHeaderOnly) {
  RunResult r = fs.tool({"-r", "-f", fs.log_path(), fs.path("gone")});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to stat mount point " + fs.path("gone") + ": No such file or directory.\n",
            r.err);
  EXPECT_EQ(toolrun::log_header(fs.path("gone"), true), fs.log());
}

TEST_F(PostRestoreStartupTest, NoControlDeviceEndsTheRun) {
  fs.blockless("f", 100);
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()}, "kind=device,errno=ENOENT");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to init dm session: Function not implemented.\n", r.err);
  EXPECT_EQ(toolrun::log_header(fs.mnt(), false), fs.log());
}

TEST_F(PostRestoreStartupTest, TrailingSlashesAreStripped) {
  fs.blockless("f", 100);
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt() + "///"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("Got mount point " + fs.mnt() + ".\nProcessing directory " + fs.mnt() +
                ".\n  Would remove file " + fs.path("f") + ".\n",
            r.out);
  EXPECT_EQ(toolrun::log_header(fs.mnt(), false) + fs.path("f") + "\n", fs.log());
}

TEST_F(PostRestoreStartupTest, OptionsMayFollowTheMountPoint) {
  fs.blockless("f", 100);
  RunResult r = fs.tool({fs.mnt(), "ignored-second-argument", "-f", fs.log_path(), "-r"});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(toolrun::log_header(fs.mnt(), true) + fs.path("f") + "\n", fs.log());
  EXPECT_FALSE(fs.exists("f"));
}

// Arguments are bounded by the tool's 1024-byte buffers: 1023 characters are
// taken as they are, longer ones refused with a message that names them.
TEST_F(PostRestoreStartupTest, OverlongArgumentsAreRefused) {
  std::string dir = (fs.root() / "missing").string() + "/";
  std::string log1023 = dir + std::string(1023 - dir.size(), 'l');
  RunResult r = fs.tool({"-f", log1023, fs.mnt()});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(std::string("Failed to open logfile ") + kDefaultLog + ": No such file or directory.\n",
            r.err);

  std::string log1024 = log1023 + "l";
  r = fs.tool({"-f", log1024, fs.mnt()});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Log file name is too long (1024 characters, at most 1023): " + log1024 + "\n", r.err);

  std::string mnt1024 = "/" + std::string(1023, 'm');
  r = fs.tool({"-f", fs.log_path(), mnt1024});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Mount point is too long (1024 characters, at most 960): " + mnt1024 + "\n", r.err);
  EXPECT_EQ("", r.out);
}

}  // namespace
