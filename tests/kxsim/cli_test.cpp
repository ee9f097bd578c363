// The kxsim tool: registry, state commands, populate and the blockless check.
#include <sys/syscall.h>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

using CliTest = SimTest;

TEST_F(CliTest, MkfsNeedsAValidFsid) {
  EXPECT_EQ(1, cli("mkfs " + root_ + "/x --fsid 0").status);
  EXPECT_EQ(1, cli("mkfs " + root_ + "/x --fsid 12345678901234567").status);
  CmdResult dup = cli("mkfs " + root_ + "/x --fsid c0ffee01");
  EXPECT_EQ(1, dup.status);
  EXPECT_NE(std::string::npos, dup.out.find("already used by " + mnt_)) << dup.out;
  CmdResult none = cli("mkfs " + root_ + "/x");
  ASSERT_EQ(0, none.status);
}

// Without KXSIM_CONFIG the tool and the preloaded library agree on a
// per-user file; while it does not exist there is no driver, and an empty
// KXSIM_CONFIG switches the simulator off.
TEST_F(CliTest, DefaultConfigurationServesToolAndLibrary) {
  const std::string home = root_ + "/home", conf = home + "/.local/state/kxsim/kxsim.conf";
  const std::string env = "env -u KXSIM_CONFIG XDG_STATE_HOME= HOME=" + home + " ";
  const std::string cli_path = std::string(KXSIM_CLI) + " ";
  const std::string open_device = "cat /dev/kxfsctl0";  // opens only when simulated
  EXPECT_NE(0, sh(env + open_device).status);
  ASSERT_EQ(0, sh(env + cli_path + "mkfs " + root_ + "/y").status);
  EXPECT_NE(std::string::npos, read_text(conf).find(root_ + "/y"));
  EXPECT_EQ(0, sh(env + open_device).status);
  EXPECT_NE(0, sh("env KXSIM_CONFIG= HOME=" + home + " " + open_device).status);
  CmdResult help = sh(env + cli_path + "--help");
  EXPECT_NE(std::string::npos, help.out.find("here: " + conf)) << help.out;
  const std::string xdg = root_ + "/xdg";
  ASSERT_EQ(0, sh(env + "XDG_STATE_HOME=" + xdg + " " + cli_path + "mkfs " + root_ + "/z").status);
  EXPECT_NE(std::string::npos, read_text(xdg + "/kxsim/kxsim.conf").find(root_ + "/z"));
}

TEST_F(CliTest, VersionIsTheProjectVersion) {
  CmdResult r = cli("--version");
  EXPECT_EQ(0, r.status);
  EXPECT_EQ(std::string("kxsim ") + KXSIM_VERSION + "\n", r.out);
}

TEST_F(CliTest, UmountUnregisters) {
  ASSERT_EQ(0, cli("umount " + mnt_).status);
  errno = 0;
  EXPECT_TRUE(path_to_handle(mnt_).empty());
  EXPECT_EQ(EINVAL, errno);
  EXPECT_EQ(1, cli("umount " + mnt_).status);
}

TEST_F(CliTest, StateCommandsRefuseBadInput) {
  make_file("f");
  EXPECT_EQ(1, cli("attr set " + path("f") + " BFST 0g").status);
  EXPECT_EQ(1, cli("attr set " + path("f") + " TOOLONGNAME 00").status);
  EXPECT_EQ(1, cli("attr set " + path("f") + " BFST " + std::string(258, '0')).status);
  EXPECT_EQ(1, cli("attr get " + path("f") + " BFST").status);
  EXPECT_EQ(1, cli("attr set " + root_ + "/kxsim.conf BFST 00").status);  // not in a mount
  EXPECT_EQ(1, cli("events set " + path("f") + " nonsense").status);
  EXPECT_EQ(1, cli("frobnicate").status);
  ASSERT_EQ(0, cli("attr set " + path("f") + " BFST 0001").status);
  ASSERT_EQ(0, cli("attr rm " + path("f") + " BFST").status);
  EXPECT_EQ(1, cli("attr rm " + path("f") + " BFST").status);
}

TEST_F(CliTest, RunSetsTheEnvironment) {
  CmdResult r = cli("run --config " + config_ + " -- sh -c 'echo $KXSIM_CONFIG; echo $LD_PRELOAD'");
  ASSERT_EQ(0, r.status) << r.out;
  EXPECT_TRUE(r.out.starts_with(config_ + "\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("libkxsim.so")) << r.out;
  EXPECT_EQ(1, cli("run -- /nonexistent/program").status);
}

TEST_F(CliTest, PopulateBuildsTheRequestedTree) {
  CmdResult r = cli("populate " + path("t") + " --dirs 20 --files 100 --blockless 30 --size 512");
  ASSERT_EQ(0, r.status) << r.out;
  EXPECT_NE(std::string::npos, r.out.find(": 100 files (30 blockless), 20 directories\n")) << r.out;
  int files = 0, blockless = 0, dirs = 0, max_depth = 0;
  std::istringstream in([&] {
    FILE *p = popen(("find " + path("t") + " -mindepth 1 -printf '%y %s %b %d\\n'").c_str(), "r");
    std::string s;
    char buf[256];
    while (p && std::fgets(buf, sizeof buf, p)) s += buf;
    if (p) pclose(p);
    return s;
  }());
  char type;
  long size, blocks;
  int depth;
  while (in >> type >> size >> blocks >> depth) {
    max_depth = std::max(max_depth, depth);
    if (type == 'd') ++dirs;
    if (type != 'f') continue;
    ++files;
    EXPECT_EQ(512, size);
    if (blocks == 0) ++blockless;
  }
  EXPECT_EQ(20, dirs);
  EXPECT_EQ(100, files);
  EXPECT_EQ(30, blockless);
  EXPECT_GE(max_depth, 3) << "directories are nested";
}

TEST_F(CliTest, CheckRefusesABlocklessFileWithBlocks) {
  ASSERT_EQ(0, cli("populate " + path("t") + " --dirs 2 --files 10 --blockless 100").status);
  EXPECT_EQ(0, cli("check " + mnt_).status);
  std::string victim = path("t/d00001/f0000001");
  int fd = open(victim.c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(4, write(fd, "data", 4));
  close(fd);
  CmdResult r = cli("check " + mnt_);
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.out.find(victim)) << r.out;
}

}  // namespace
}  // namespace kxsim_test

namespace kxsim_test {
namespace {

TEST_F(CliTest, CorruptConfigurationIsReportedAndSimulatesNothing) {
  std::ofstream(config_, std::ios::app) << "mount nonsense\n";
  CmdResult r = cli("mkfs " + root_ + "/x");
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.out.find("line 3: malformed mount entry")) << r.out;
  testing::internal::CaptureStderr();
  errno = 0;
  EXPECT_TRUE(path_to_handle(mnt_).empty());
  EXPECT_EQ(EINVAL, errno);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("unusable configuration")) << err;
}

}  // namespace
}  // namespace kxsim_test
