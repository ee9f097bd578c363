// Fault rules and the request log. Rules of each kind are also what the
// library's and the tool's tests inject; these are the matching rules.
#include <fstream>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

class FaultsLogTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_TRUE(fs.WriteFile("d1/victim", "data"));
  }
  // Reads an attribute of `rel`: the ioctl's errno, 0 on success.
  int read_attr(const char *name, const std::string &rel = "d1") {
    Buf b = attr_req(name);
    return file_ioctl(path(rel), 1038, b);
  }
};

// A rule matches on code, attribute name and any part of the path, and its
// errno may be a number; a stale rule fails the channel as a closed one.
TEST_F(FaultsLogTest, RuleMatchesCodeNameAndPath) {
  fs.SetFaults("kind=ioctl,code=1038,name=VDEA,path=/d1,errno=5;kind=stale,count=1");
  EXPECT_EQ(EIO, read_attr("VDEA"));
  EXPECT_EQ(ENODATA, read_attr("BFST"));
  EXPECT_EQ(EIO, read_attr("VDEA", "d1/victim")) << "d1/victim contains /d1";
  Buf b(256, 0);
  EXPECT_EQ(EBADF, dmig(1, b));
  EXPECT_EQ(0, dmig(1, b));
}

// What makes the tool's races deterministic: the command runs once, before
// the request is answered, so the request sees what the command did.
TEST_F(FaultsLogTest, RunRuleActsOnceBeforeTheRequest) {
  const std::string marker = fs.root() + "/ran";
  fs.SetFaults("kind=dmig,code=7,path=d1,run=echo x >> " + marker + " && mv " + path("d1") + " " +
               path("moved") + " && ln -s moved " + path("d1"));
  Buf h = path_to_handle(path("d1"), 2);  // the link's handle: resolved after the swap
  ASSERT_EQ(24u, h.size());
  EXPECT_EQ("d1", handle_to_path(h));
  EXPECT_EQ(24u, path_to_handle(path("d1"), 2).size());
  EXPECT_EQ("x\n", ReadFile(marker));
}

TEST_F(FaultsLogTest, RulesFileIsReReadWhenChanged) {
  std::string file = fs.root() + "/faults";
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
  fs.SetFaults("kind=bogus,errno=EIO;kind=ioctl,errno=ENOTANERRNO");
  std::string err = vdtest::StderrOf([&] { EXPECT_EQ(ENODATA, read_attr("VDEA")); });
  EXPECT_NE(std::string::npos, err.find("unknown kind 'bogus'")) << err;
  EXPECT_NE(std::string::npos, err.find("unknown errno 'ENOTANERRNO'")) << err;
}

// The kinds of line the library's and the tool's tests do not read.
TEST_F(FaultsLogTest, LogLineFormat) {
  fs.StartLog();
  read_attr("BFST");
  ASSERT_EQ(0, unlink(path("d1/victim").c_str()));
  auto has = [&](const std::string &prefix, const std::string &part) {
    for (const auto &l : fs.LogLinesWith({part})) {
      if (l.starts_with(prefix)) return true;
    }
    return false;
  };
  const std::string log = ReadFile(fs.LogPath());
  EXPECT_TRUE(has("ioctl 0x40e " + path("d1") + " name=BFST", "result=-1 errno=ENODATA")) << log;
  EXPECT_TRUE(has("unlink 0x0 " + path("d1/victim"), "result=0")) << log;
  EXPECT_TRUE(has("open 0x0 " + path("d1"), "flags=")) << log;
}

}  // namespace
}  // namespace kxsim_test
