// Data-management attributes and dm_stat: refusals that happen before any
// request, then the requests on files of a simulated mount, by descriptor and
// by handle, including injected failures.
#include <algorithm>
#include <array>

#include "dm_test.h"

namespace {

std::vector<unsigned char> Pattern(size_t n, unsigned char seed) {
  std::vector<unsigned char> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<unsigned char>(seed + i * 7);
  return v;
}

const dm_attrname_t kBfst = {{'B', 'F', 'S', 'T'}};
const dm_attrname_t kVdea = {{'V', 'D', 'E', 'A'}};

TEST(AttributesOutsideFsTest, FailuresKeepTheRequestErrnoAndRefuseOversizedValues) {
  const int fd = open("/dev/null", O_RDONLY);
  unsigned char buf[DM_ATTR_VALUE_MAX + 1] = {};
  size_t rlen = 99;
  // No driver here: the request was made.
  EXPECT_EQ("-1 ENOTTY", OUTCOME(dm_get_dmattr_fd(fd, 0, -1, &kBfst, 32, buf, &rlen)));
  EXPECT_EQ(0u, rlen);
  // 129 bytes cannot be sent.
  EXPECT_EQ("-1 E2BIG", OUTCOME(dm_set_dmattr_fd(fd, 0, -1, &kBfst, 0, sizeof buf, buf)));
  EXPECT_EQ("-1 EINVAL", OUTCOME(dm_get_dmattr_fd(fd, 0, -1, &kBfst, 32, nullptr, &rlen)));
  close(fd);
}

TEST(AttributesOutsideFsTest, HandleFormsRefuseAllButFileHandles) {
  std::array<unsigned char, 24> fsid0{};  // fsid 0 is never valid
  fsid0[9] = 14;
  uint64_t fshandle = 0x77;  // a file-system handle has no file to open
  unsigned char buf[32];
  size_t rlen = 0;
  dm_stat_t st{};
  for (auto [hanp, hlen] : {std::pair<const void *, size_t>{fsid0.data(), 24},
                            {&fshandle, sizeof fshandle},
                            {DM_GLOBAL_HANP, DM_GLOBAL_HLEN}}) {
    EXPECT_EQ("-1 EBADF",
              OUTCOME(dm_get_dmattr(0, hanp, hlen, -1, &kBfst, sizeof buf, buf, &rlen)));
    errno = 0;
    EXPECT_EQ(-1, dm_get_fileattr(0, hanp, hlen, -1, 0, &st));
    // dm_get_fileattr leaves the judgement to the open: a file-system handle
    // gets as far as the mount lookup (nothing is mounted here).
    EXPECT_EQ(hanp == &fshandle ? ENOENT : EBADF, errno);
  }
}

// ---- On a simulated mount -------------------------------------------------

class AttributesSimTest : public dmtest::SimFileTest {
 protected:
  void SetUp() override {
    SimFileTest::SetUp();
    fd_ = open(path_.c_str(), O_RDONLY);
    ASSERT_GE(fd_, 0);
  }
  void TearDown() override { close(fd_); }
  // Stores an n-byte BFST value through the descriptor form.
  void SetBfst(size_t n) {
    const auto value = Pattern(n, 3);
    ASSERT_EQ(0, dm_set_dmattr_fd(fd_, 0, -1, &kBfst, 0, n, value.data()));
  }
  int Get(const dm_attrname_t &name, std::vector<unsigned char> &out, size_t &rlen) {
    return dm_get_dmattr(0, h(), hlen(), -1, &name, out.size(), out.data(), &rlen);
  }

  int fd_ = -1;
};

TEST_F(AttributesSimTest, BfstSetGetRemoveByDescriptorAndByHandle) {
  SetBfst(40);
  std::vector<unsigned char> out(32, 0xEE);
  size_t rlen = 0;
  // A short buffer gets the needed length and nothing copied.
  EXPECT_EQ("-1 E2BIG", OUTCOME(Get(kBfst, out, rlen)));
  EXPECT_EQ(40u, rlen);
  EXPECT_EQ(std::vector<unsigned char>(32, 0xEE), out);
  const auto value = Pattern(32, 1);
  ASSERT_EQ(0, dm_set_dmattr_fd(fd_, 0, -1, &kBfst, 0, 32, value.data()));
  ASSERT_EQ(0, Get(kBfst, out, rlen));
  EXPECT_EQ(32u, rlen);
  EXPECT_EQ(value, out);
  ASSERT_EQ(0, dm_remove_dmattr(0, h(), hlen(), -1, 0, &kBfst));
  EXPECT_EQ("-1 ENODATA", OUTCOME(dm_get_dmattr_fd(fd_, 0, -1, &kBfst, 32, out.data(), &rlen)));
  EXPECT_EQ("-1 ENODATA", OUTCOME(dm_remove_dmattr_fd(fd_, 0, -1, 0, &kBfst)));
}

TEST_F(AttributesSimTest, ZeroLengthAndLargestValues) {
  ASSERT_EQ(0, dm_set_dmattr_fd(fd_, 0, -1, &kVdea, 0, 0, nullptr));
  size_t rlen = 99;
  ASSERT_EQ(0, dm_get_dmattr_fd(fd_, 0, -1, &kVdea, 0, nullptr, &rlen));
  EXPECT_EQ(0u, rlen);
  const auto big = Pattern(DM_ATTR_VALUE_MAX, 77);
  ASSERT_EQ(0, dm_set_dmattr(0, h(), hlen(), -1, &kVdea, 0, big.size(), big.data()));
  std::vector<unsigned char> out(200, 0);
  ASSERT_EQ(0, Get(kVdea, out, rlen));
  ASSERT_EQ(big.size(), rlen);
  EXPECT_TRUE(std::equal(big.begin(), big.end(), out.begin()));
  EXPECT_EQ(0, out[DM_ATTR_VALUE_MAX]);
}

TEST_F(AttributesSimTest, InjectedIoctlFailureKeepsErrnoAcrossTheClose) {
  SetBfst(32);
  fs.SetFaults("kind=ioctl,code=1038,name=BFST,errno=EIO");
  std::vector<unsigned char> out(32);
  size_t rlen = 7;
  EXPECT_EQ("-1 EIO", OUTCOME(Get(kBfst, out, rlen)));
  EXPECT_EQ(0u, rlen);
  EXPECT_EQ("-1 ENODATA", OUTCOME(Get(kVdea, out, rlen)));  // the rule names BFST only
  fs.SetFaults("kind=ioctl,code=1036,errno=EACCES");
  dm_stat_t st{};
  EXPECT_EQ("-1 EACCES", OUTCOME(dm_get_fileattr(0, h(), hlen(), -1, 0, &st)));
}

TEST_F(AttributesSimTest, UnheldHandleOpensPerCallAndLeavesNothingOpen) {
  SetBfst(32);
  ASSERT_EQ(0, fs.Kxsim({"events", "set", path_, "0x70001120"}).exit_code);
  dm_stat_t st{}, by_fd{};
  ASSERT_EQ(0, dm_get_fileattr(0, h(), hlen(), -1, 0, &st));  // builds the mount cache
  EXPECT_EQ(0x70001120u, st.dt_emask);
  ASSERT_EQ(0, dm_get_fileattr_fd(fd_, 0, -1, 0, &by_fd));
  EXPECT_EQ(0, memcmp(&st, &by_fd, sizeof st)) << "by handle and by descriptor agree";
  std::vector<unsigned char> out(32);
  size_t rlen = 0;
  const size_t before = dmtest::OpenDescriptorCount();
  fs.StartLog();
  ASSERT_EQ(0, Get(kBfst, out, rlen));
  EXPECT_EQ(-1, Get(kVdea, out, rlen));
  EXPECT_EQ(before, dmtest::OpenDescriptorCount());
  EXPECT_EQ(2u, fs.LogLinesWith({"open ", "handle="}).size());
  EXPECT_EQ(1u, fs.LogLinesWith({"ioctl 0x40e ", "name=BFST", "result=0"}).size());
}

}  // namespace
