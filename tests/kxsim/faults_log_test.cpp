// Fault rules and the request log.
#include <sys/syscall.h>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

class FaultsLogTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    make_dir("d1");
    make_file("d1/victim");
  }
  // Reads an attribute of d1: the ioctl's errno, 0 on success.
  int read_attr(const char *name) {
    Buf b(160, 0);
    put<std::uint32_t>(b, 12, 128);
    std::memcpy(b.data() + 24, name, std::strlen(name));
    int err = 0;
    file_ioctl(path("d1"), 1038, b, &err);
    return err;
  }
  std::vector<std::string> log_lines() {
    std::vector<std::string> lines;
    std::istringstream in(read_text(root_ + "/log"));
    for (std::string l; std::getline(in, l);) lines.push_back(l);
    return lines;
  }
};

TEST_F(FaultsLogTest, RuleMatchesCodeNameAndPath) {
  setenv("KXSIM_FAULTS", "kind=ioctl,code=1038,name=VDEA,path=/d1,errno=EIO", 1);
  EXPECT_EQ(EIO, read_attr("VDEA"));
  EXPECT_EQ(ENODATA, read_attr("BFST"));
  Buf b(160, 0);
  int err = 0;
  std::memcpy(b.data() + 24, "VDEA", 4);
  file_ioctl(path("d1/victim"), 1038, b, &err);
  EXPECT_EQ(EIO, err) << "d1/victim contains /d1";
}

TEST_F(FaultsLogTest, SkipAndCount) {
  setenv("KXSIM_FAULTS", "kind=ioctl,name=VDEA,skip=1,count=2,errno=EACCES", 1);
  EXPECT_EQ(ENODATA, read_attr("VDEA"));
  EXPECT_EQ(EACCES, read_attr("VDEA"));
  EXPECT_EQ(EACCES, read_attr("VDEA"));
  EXPECT_EQ(ENODATA, read_attr("VDEA"));
}

TEST_F(FaultsLogTest, UnlinkDeviceAndStaleRules) {
  setenv("KXSIM_FAULTS",
         "kind=unlink,path=victim,errno=EACCES;kind=stale,count=1;kind=device,count=1,errno=13", 1);
  errno = 0;
  EXPECT_EQ(-1, unlinkat(AT_FDCWD, path("d1/victim").c_str(), 0));
  EXPECT_EQ(EACCES, errno);
  EXPECT_EQ(-1, open("/dev/kxfsctl0", O_RDWR));
  EXPECT_EQ(EACCES, errno);
  Buf b(256, 0);
  EXPECT_EQ(-1, dmig(1, b));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0, dmig(1, b));
}

TEST_F(FaultsLogTest, RunCommandActsBeforeTheRequestOnce) {
  std::string marker = root_ + "/ran";
  setenv("KXSIM_FAULTS", ("kind=dmig,code=7,run=echo x >> " + marker).c_str(), 1);
  EXPECT_EQ(24u, path_to_handle(path("d1")).size());
  EXPECT_EQ(24u, path_to_handle(path("d1")).size());
  EXPECT_EQ("x\n", read_text(marker));
}

TEST_F(FaultsLogTest, RunCanReplaceADirectoryAtAnExactMoment) {
  std::string cmd = "kind=dmig,code=7,path=d1,run=mv " + path("d1") + " " + path("moved") +
                    " && ln -s moved " + path("d1");
  setenv("KXSIM_FAULTS", cmd.c_str(), 1);
  Buf h = path_to_handle(path("d1"), 2);  // resolved after the swap
  ASSERT_EQ(24u, h.size());
  EXPECT_EQ("d1", handle_to_path(h));
  struct stat st;
  ASSERT_EQ(0, lstat(path("d1").c_str(), &st));
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

TEST_F(FaultsLogTest, RulesFileIsReReadWhenChanged) {
  std::string file = root_ + "/faults";
  std::ofstream(file) << "# comment\nkind=ioctl,name=VDEA,errno=EPERM\n";
  setenv("KXSIM_FAULTS_FILE", file.c_str(), 1);
  EXPECT_EQ(EPERM, read_attr("VDEA"));
  std::ofstream(file, std::ios::trunc)
      << "# rules may change at run time\nkind=ioctl,name=VDEA,errno=ENOSPC\n";
  EXPECT_EQ(ENOSPC, read_attr("VDEA"));
  unsetenv("KXSIM_FAULTS_FILE");
  EXPECT_EQ(ENODATA, read_attr("VDEA"));
}

TEST_F(FaultsLogTest, BadRuleIsReportedAndIgnored) {
  setenv("KXSIM_FAULTS", "kind=bogus,errno=EIO;kind=ioctl,errno=ENOTANERRNO", 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ENODATA, read_attr("VDEA"));
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, err.find("unknown kind 'bogus'")) << err;
  EXPECT_NE(std::string::npos, err.find("unknown errno 'ENOTANERRNO'")) << err;
}

TEST_F(FaultsLogTest, LogLineFormat) {
  setenv("KXSIM_LOG", (root_ + "/log").c_str(), 1);
  path_to_handle(path("d1"), 1);
  read_attr("BFST");
  Buf upd(40, 0);
  put<std::int32_t>(upd, 8, 40);
  put<std::uint64_t>(upd, 32, 0x70000000);
  file_ioctl(path("d1/victim"), 0x426, upd);
  ASSERT_EQ(0, unlink(path("d1/victim").c_str()));
  auto lines = log_lines();
  auto has = [&](const std::string &prefix, const std::string &part) {
    for (const auto &l : lines) {
      if (l.starts_with(prefix) && l.find(part) != std::string::npos) return true;
    }
    return false;
  };
  EXPECT_TRUE(has("dmig 0x7 " + path("d1") + " ", " flags=1 ")) << read_text(root_ + "/log");
  EXPECT_TRUE(has("ioctl 0x40e " + path("d1") + " name=BFST", "result=-1 errno=ENODATA"));
  EXPECT_TRUE(has("ioctl 0x426 " + path("d1/victim"), "mask=0x70000000 result=0"));
  EXPECT_TRUE(has("unlink 0x0 " + path("d1/victim"), "result=0"));
  EXPECT_TRUE(has("open 0x0 " + path("d1"), "flags="));
}

}  // namespace
}  // namespace kxsim_test
