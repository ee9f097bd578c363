// The interposer's own rules: pass through what is not the simulator's,
// keep errno, never recurse, list simulated mounts, and stay consistent
// under concurrent use.
#include <mntent.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

class InterposerTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_TRUE(fs.WriteFile("f", "data"));
  }
};

TEST_F(InterposerTest, RequestsOutsideMountsBehaveAsWithoutTheDriver) {
  const std::string outside = fs.root() + "/outside";
  std::ofstream(outside) << "x";
  Buf b(160, 0);
  EXPECT_EQ(ENOTTY, file_ioctl(outside, 0x40E, b));
  fs.SetFaults("kind=open,errno=EIO,path=nothing-matches");
  EXPECT_EQ(0, open_errno(outside));
}

TEST_F(InterposerTest, InertWithoutConfiguration) {
  Buf h = path_to_handle(path("f"));
  close_ctl();
  unsetenv("KXSIM_CONFIG");
  Buf b(160, 0);
  EXPECT_EQ(ENOTTY, file_ioctl(path("f"), 0x40E, b));
  EXPECT_EQ(ENOENT, open_errno(special_path(h)));
  EXPECT_EQ(ENOENT, open_errno("/dev/kxfsctl0", O_RDWR));
  FILE *m = setmntent("/proc/mounts", "r");
  ASSERT_NE(m, nullptr);
  while (mntent *e = getmntent(m)) EXPECT_STRNE("kxfs", e->mnt_type);
  endmntent(m);
}

// The settings are read once and again after a change; setenv and unsetenv
// are what the other cases use, these are the remaining routes. putenv of a
// name already set changes neither `environ` nor the array's length.
TEST_F(InterposerTest, EveryWayOfChangingTheEnvironmentIsNoticed) {
  auto answer = [&] {
    Buf b(160, 0);  // no attribute name: EINVAL when simulated
    return file_ioctl(path("f"), 0x40E, b);
  };
  ASSERT_EQ(EINVAL, answer());
  static char off[] = "KXSIM_CONFIG=";
  ASSERT_EQ(0, putenv(off));
  EXPECT_EQ(ENOTTY, answer());
  setenv("KXSIM_CONFIG", fs.config().c_str(), 1);
  EXPECT_EQ(EINVAL, answer());
  char **saved = environ;
  char *replaced[] = {off, nullptr};
  environ = replaced;
  EXPECT_EQ(ENOTTY, answer());
  environ = saved;
  EXPECT_EQ(EINVAL, answer());
}

TEST_F(InterposerTest, ErrnoIsKeptOnSuccess) {
  errno = 4242;
  ASSERT_GE(ctl(), 0);
  EXPECT_EQ(4242, errno);
  Buf b(256, 0);
  errno = 4243;
  ASSERT_EQ(0, dmig(1, b));
  EXPECT_EQ(4243, errno);
  Buf g(184, 0);
  errno = 4244;
  int fd = open(path("f").c_str(), O_RDONLY);
  ASSERT_EQ(0, ioctl(fd, 0x40C, g.data()));
  EXPECT_EQ(4244, errno);
  close(fd);
  errno = 4245;
  ASSERT_EQ(0, unlink(path("f").c_str()));
  EXPECT_EQ(4245, errno);
}

TEST_F(InterposerTest, NoInternalRecursion) {
  setenv("KXSIM_TRACE", "1", 1);
  fs.StartLog();
  fs.SetFaults("kind=ioctl,name=NONE,errno=EIO");
  std::string err = vdtest::StderrOf([&] {
    Buf h = path_to_handle(path("f"));
    int fd = open(special_path(h).c_str(), O_RDONLY);
    Buf b(160, 0);
    ioctl(fd, 0x40E, b.data());
    close(fd);
    FILE *m = setmntent("/proc/mounts", "r");
    if (m) endmntent(m);
    unlink(path("f").c_str());
  });
  unsetenv("KXSIM_TRACE");
  EXPECT_EQ(std::string::npos, err.find("recursion")) << err;
  EXPECT_NE(std::string::npos, err.find("dmig 0x7")) << "tracing is on";
}

TEST_F(InterposerTest, MountTableListsSimulatedMounts) {
  ASSERT_FALSE(fs.Mkfs("with space").empty());
  FILE *m = setmntent("/proc/mounts", "r");
  ASSERT_NE(m, nullptr);
  std::vector<std::string> kxfs;
  int real = 0;
  mntent ent;
  char buf[4096];
  while (getmntent_r(m, &ent, buf, sizeof buf)) {
    if (std::string(ent.mnt_type) == "kxfs") {
      kxfs.push_back(ent.mnt_dir);
    } else {
      ++real;
    }
  }
  endmntent(m);
  EXPECT_GT(real, 0);
  EXPECT_EQ((std::vector<std::string>{fs.mnt(), fs.root() + "/with space"}), kxfs);
}

TEST_F(InterposerTest, ConcurrentRequestsStayConsistent) {
  Buf h = path_to_handle(path("f"));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 50; ++i) {
        int fd = open(special_path(h).c_str(), O_RDONLY);
        Buf set = attr_req(("T" + std::to_string(t)).c_str(), {static_cast<unsigned char>(i)});
        if (fd < 0 || ioctl(fd, 0x40F, set.data()) != 0) ++failures;
        if (fd >= 0) close(fd);
      }
    });
  }
  for (auto &t : threads) t.join();
  EXPECT_EQ(0, failures.load());
  std::string shown = fs.Query({"show", path("f")});
  for (int t = 0; t < 4; ++t) {
    EXPECT_NE(std::string::npos, shown.find("attr T" + std::to_string(t) + " 31")) << shown;
  }
}

}  // namespace
}  // namespace kxsim_test
