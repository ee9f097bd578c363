// The driver channel: session start, descriptor keeping and replacement,
// open-per-request mode, and how device failures are reported. Each case
// needs a fresh process (the session starts once per process), as CTest runs
// them.
#include <cstdlib>

#include "dm_test.h"

namespace {

int InitErrno() {
  char *version = nullptr;
  errno = 0;
  return dm_init_service(&version) == 0 ? 0 : errno;
}

TEST(ChannelNoDriverTest, MissingDeviceIsENOSYSAndTheFirstFailureIsFinal) {
  setenv("KXSIM_CONFIG", "", 1);  // no driver, whatever the default
  EXPECT_EQ(ENOSYS, InitErrno());
  EXPECT_EQ(-1, kxdmapi_dmfd);
  EXPECT_STREQ("libkxdmapi", kxdmapi_Prog);
  EXPECT_EQ(0, InitErrno()) << "a second call reports success without a channel";
  unsigned char payload[16] = {};
  EXPECT_EQ(-1, kxdmapi_call_driver(DMIG_GETALL_SESSIONS, payload, sizeof payload));
  EXPECT_EQ(ENOSYS, errno);
  EXPECT_EQ(-1, kxdmapi_call_driver(DMIG_GETALL_SESSIONS, payload, size_t{1} << 33));
  EXPECT_EQ(EINVAL, errno) << "the frame holds a 32-bit length";
}

class ChannelTest : public vdtest::SimFsTest {};

TEST_F(ChannelTest, InitServiceHandsOutTheVersionStringOnce) {
  fs.StartLog();
  char *version = nullptr;
  char *again = nullptr;
  ASSERT_EQ(0, dm_init_service(&version));
  EXPECT_EQ(std::string("KXFS DMAPI (XDSM) API, Release 1.0."), version);
  EXPECT_GE(kxdmapi_dmfd, 0) << "the channel is kept open";
  ASSERT_EQ(0, dm_init_service(&again));
  EXPECT_EQ(kxdmapi_version_string, again);
  EXPECT_EQ(1u, fs.LogLinesWith({"dmig 0x1 "}).size()) << "the second call sends nothing";
}

TEST_F(ChannelTest, NotPermittedKeepsEPERM) {
  fs.SetFaults("kind=device,errno=EPERM");
  EXPECT_EQ(EPERM, InitErrno());
}

TEST_F(ChannelTest, FailedInitRequestClosesTheChannel) {
  fs.SetFaults("kind=dmig,code=1,errno=EIO");
  EXPECT_EQ(EIO, InitErrno());
  EXPECT_EQ(-1, kxdmapi_dmfd);
}

TEST_F(ChannelTest, StaleDescriptorIsReplacedAtMostTwice) {
  ASSERT_EQ(0, InitErrno());
  vdtest::OwnedHandle root;
  fs.StartLog();
  fs.SetFaults("kind=stale,count=2,errno=EBADF");
  EXPECT_EQ("", root.Resolve(fs.mnt()));
  EXPECT_EQ(3u, fs.LogLinesWith({"dmig 0x7 "}).size());
  EXPECT_GE(kxdmapi_dmfd, 0);
  fs.StartLog();
  fs.SetFaults("kind=stale,count=10,errno=EBADF");
  EXPECT_EQ(strerror(EBADF), root.Resolve(fs.mnt()));
  EXPECT_EQ(3u, fs.LogLinesWith({"dmig 0x7 "}).size()) << "three attempts in all";
}

TEST_F(ChannelTest, AfterReleaseEachRequestOpensAndClosesTheDevice) {
  vdtest::OwnedHandle root;
  ASSERT_EQ("", root.Resolve(fs.mnt()));
  EXPECT_GE(kxdmapi_dmfd, 0) << "the first request opens the channel";
  dm_release_dmfd();
  EXPECT_EQ(-1, kxdmapi_dmfd);
  const size_t before = dmtest::OpenDescriptorCount();
  for (int i = 0; i < 3; ++i) ASSERT_EQ("", root.Resolve(fs.mnt()));
  EXPECT_EQ(-1, kxdmapi_dmfd);
  EXPECT_EQ(before, dmtest::OpenDescriptorCount()) << "no descriptor may be left behind";
}

}  // namespace
