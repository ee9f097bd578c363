// The control device and the Dmig frame.
#include "sim_fixture.h"

namespace kxsim_test {
namespace {

using ControlDeviceTest = SimTest;

TEST_F(ControlDeviceTest, AbsentWithoutConfiguration) {
  unsetenv("KXSIM_CONFIG");
  errno = 0;
  EXPECT_EQ(-1, open("/dev/kxfsctl0", O_RDWR));
  EXPECT_EQ(ENOENT, errno);
}

TEST_F(ControlDeviceTest, InitialiseSucceeds) {
  ASSERT_GE(ctl(), 0);
  Buf b(256, 0);
  EXPECT_EQ(0, dmig(1, b));
}

TEST_F(ControlDeviceTest, RefusesWrongVersionAndSize) {
  Buf b(256, 0);
  errno = 0;
  EXPECT_EQ(-1, dmig(1, b, 5));
  EXPECT_EQ(EINVAL, errno);
  Buf shorter(1111, 0);  // path to handle wants 1112
  EXPECT_EQ(-1, dmig(7, shorter));
  EXPECT_EQ(EINVAL, errno);
  Buf any(16, 0);
  EXPECT_EQ(-1, dmig(99, any));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(ControlDeviceTest, EveryTableCodeHasAnAnswer) {
  const std::pair<int, std::size_t> codes[] = {{2, 264}, {3, 8},     {4, 16},   {5, 264}, {15, 88},
                                               {16, 16}, {17, 16},   {18, 32},  {21, 24}, {22, 32},
                                               {37, 24}, {38, 1256}, {39, 1040}};
  for (auto [func, size] : codes) {
    Buf b(size, 0);
    errno = 0;
    int r = dmig(func, b);
    EXPECT_TRUE(r == 0 || errno == ENOSYS) << "code " << func << " errno " << errno;
  }
}

TEST_F(ControlDeviceTest, MountChangeTimeFollowsConfiguration) {
  unsigned char t[16] = {};
  ASSERT_EQ(0, ioctl(ctl(), 0x8010E693, t));
  std::uint64_t sec, usec;
  std::memcpy(&sec, t, 8);
  std::memcpy(&usec, t + 8, 8);
  struct stat st;
  ASSERT_EQ(0, stat(config_.c_str(), &st));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_mtim.tv_sec), sec);
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_mtim.tv_nsec / 1000), usec);
  ASSERT_EQ(0, cli("mkfs " + root_ + "/other").status);
  unsigned char t2[16] = {};
  ASSERT_EQ(0, ioctl(ctl(), 0x8010E693, t2));
  EXPECT_NE(0, std::memcmp(t, t2, 16));
}

TEST_F(ControlDeviceTest, NodeAnswersMountChangeTime) {
  int fd = open("/dev/kxfsctl", O_RDONLY);
  ASSERT_GE(fd, 0);
  unsigned char t[16] = {};
  EXPECT_EQ(0, ioctl(fd, 0x8010E693, t));
  close(fd);
}

TEST_F(ControlDeviceTest, ClosedDescriptorIsForgotten) {
  int fd = ctl();
  close_ctl();
  int other = open("/dev/null", O_RDWR);  // likely the same number
  Buf b(256, 0);
  Buf frame(24, 0);
  put<std::int32_t>(frame, 0, 1);
  put<std::int16_t>(frame, 4, 6);
  put<std::uint32_t>(frame, 8, 256);
  put<std::uint64_t>(frame, 16, reinterpret_cast<std::uintptr_t>(b.data()));
  errno = 0;
  EXPECT_EQ(-1, ioctl(other, 0xc018e571, frame.data()));
  EXPECT_EQ(ENOTTY, errno) << "descriptor " << fd << " reused as " << other;
  close(other);
}

TEST_F(ControlDeviceTest, OtherRequestsOnTheDeviceAreNotTerminals) {
  errno = 0;
  EXPECT_EQ(0, isatty(ctl()));
  EXPECT_EQ(ENOTTY, errno);
}

}  // namespace
}  // namespace kxsim_test
