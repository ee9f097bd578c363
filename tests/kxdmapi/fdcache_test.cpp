// The open-file cache. Table cases need no file system (pipes stand in for
// descriptors opened by handle); SimFs cases open files of a simulated mount.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "kxdmapi/kxdmapi.h"
#include "support/owned_handle.h"
#include "support/sim_fs.h"

namespace {

using Handle = std::array<unsigned char, 24>;

// fsid (host order), fid length 14 big-endian, zero pad, generation 1, inode.
Handle MakeFileHandle(uint64_t fsid, uint64_t ino) {
  Handle h{};
  memcpy(h.data(), &fsid, 8);
  h[9] = 14;
  h[15] = 1;
  for (int i = 0; i < 8; ++i) h[16 + i] = static_cast<unsigned char>(ino >> (56 - 8 * i));
  return h;
}

bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

int NewDescriptor() {
  int p[2];
  EXPECT_EQ(0, pipe(p));
  close(p[1]);
  return p[0];
}

class FdCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dm_fdcache_flush();
    dm_fdcache_init();
  }
  void TearDown() override { dm_fdcache_flush(); }
  // Handles of n distinct inodes, held once each: entry i holds handle i.
  std::vector<Handle> HoldDistinct(int n) {
    std::vector<Handle> hs;
    for (int i = 0; i < n; ++i) {
      hs.push_back(MakeFileHandle(0x1234, 100 + static_cast<uint64_t>(i)));
      EXPECT_EQ(0, dm_obj_ref_hold(0, -1, hs.back().data(), 24));
    }
    return hs;
  }
};

TEST_F(FdCacheTest, NinthDistinctHoldFailsButRepeatHoldSucceeds) {
  auto hs = HoldDistinct(8);
  Handle ninth = MakeFileHandle(0x1234, 999);
  EXPECT_EQ("-1 ENOMEM", OUTCOME(dm_obj_ref_hold(0, -1, ninth.data(), 24)));
  EXPECT_EQ(0, dm_obj_ref_query(0, -1, ninth.data(), 24));
  EXPECT_EQ(0, dm_obj_ref_hold(0, -1, hs[5].data(), 24));
  EXPECT_EQ(2u, dm_fd_cache[5].fd_count);
  EXPECT_EQ(1, dm_obj_ref_query(0, -1, hs[5].data(), 24));
  EXPECT_EQ(0, errno);
}

TEST_F(FdCacheTest, FreedSlotThreeIsTakenByTheNextNewHold) {
  auto hs = HoldDistinct(8);
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, hs[3].data(), 24));
  EXPECT_EQ(0u, dm_fd_cache[3].fd_handlen);
  Handle fresh = MakeFileHandle(0x1234, 4242);
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, fresh.data(), 24));
  EXPECT_EQ(0, memcmp(&dm_fd_cache[3].fd_handle, fresh.data(), 24));
}

TEST_F(FdCacheTest, DescriptorStaysOpenUntilTheLastRelease) {
  Handle h = MakeFileHandle(0x1234, 7);
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h.data(), 24));
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h.data(), 24));
  const int fd = NewDescriptor();
  dm_fdcache_update_fd(h.data(), 24, fd);
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, h.data(), 24));
  EXPECT_TRUE(IsOpen(fd));
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, h.data(), 24));
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ("-1 ENOENT", OUTCOME(dm_obj_ref_rele(0, -1, h.data(), 24)));
}

TEST_F(FdCacheTest, ReleasingTheGlobalHandleClosesEverything) {
  auto hs = HoldDistinct(3);
  const int fd0 = NewDescriptor(), fd2 = NewDescriptor();
  dm_fdcache_update_fd(hs[0].data(), 24, fd0);
  dm_fdcache_update_fd(hs[2].data(), 24, fd2);
  EXPECT_EQ(0, dm_obj_ref_rele(0, -1, DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  EXPECT_FALSE(IsOpen(fd0));
  EXPECT_FALSE(IsOpen(fd2));
  for (const dm_fd_entry_t &e : dm_fd_cache) {
    EXPECT_EQ(0u, e.fd_handlen + e.fd_count);
    EXPECT_EQ(-1, e.fd_fd);
  }
}

TEST_F(FdCacheTest, BadHandlesAreRefusedWithoutTouchingTheTable) {
  Handle bad = MakeFileHandle(0, 7);  // fsid 0
  for (auto call : {dm_obj_ref_hold, dm_obj_ref_rele, dm_obj_ref_query}) {
    EXPECT_EQ("-1 EBADF", OUTCOME(call(0, -1, bad.data(), 24)));
  }
  EXPECT_EQ(-1, dm_obj_ref_hold(0, -1, DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  EXPECT_EQ(-1, dm_open_by_handle(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, 0));
  std::array<unsigned char, 80> big{};
  EXPECT_EQ(0, dm_fdcache_handle_hold(big.data(), big.size()));  // would overflow
  EXPECT_EQ(0, dm_fdcache_handle_hold(nullptr, 24));
  for (const dm_fd_entry_t &e : dm_fd_cache) EXPECT_EQ(0u, e.fd_handlen);
  HoldDistinct(1);  // a null look-up must not reach the entry's comparison
  EXPECT_EQ(0, dm_fdcache_search(nullptr, 24, nullptr));
}

TEST_F(FdCacheTest, CloseKeepsTheHeldDescriptorAndClosesAnyOther) {
  Handle h = MakeFileHandle(0x1234, 10);
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h.data(), 24));
  const int cached = NewDescriptor();
  dm_fdcache_update_fd(h.data(), 24, cached);
  EXPECT_EQ(cached, dm_open_by_handle(h.data(), 24, 0));
  errno = ENODATA;
  dm_close_by_handle(h.data(), 24, cached);
  EXPECT_EQ(ENODATA, errno);
  EXPECT_TRUE(IsOpen(cached));

  const int other = NewDescriptor();
  dm_close_by_handle(h.data(), 24, other);  // a mismatch drops both
  EXPECT_FALSE(IsOpen(cached));
  EXPECT_FALSE(IsOpen(other));
  int found = 0;
  ASSERT_EQ(1, dm_fdcache_search(h.data(), 24, &found));
  EXPECT_EQ(-1, found);

  Handle unheld = MakeFileHandle(0x1234, 11);
  const int plain = NewDescriptor();
  dm_close_by_handle(unheld.data(), 24, plain);
  EXPECT_FALSE(IsOpen(plain));
}

// ---- Opening files of a simulated mount by handle ------------------------

class FdCacheSimTest : public vdtest::SimFsTest {
 protected:
  void SetUp() override {
    SimFsTest::SetUp();
    dm_fdcache_flush();
    ASSERT_TRUE(fs.MakeFile("f", 100));
    ASSERT_EQ("", file_.Resolve(fs.Path("f")));
    hlen_ = file_.hlen;
  }
  void TearDown() override { dm_fdcache_flush(); }
  const void *h() const { return file_.hanp; }
  vdtest::OwnedHandle file_;
  size_t hlen_ = 0;
};

TEST_F(FdCacheSimTest, UnheldOpenWithFlagsZeroIsNonBlockingReadOnly) {
  const int fd = dm_open_by_handle(h(), hlen_, 0);
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  const int second = dm_open_by_handle(h(), hlen_, O_RDWR);
  EXPECT_EQ(O_RDWR, fcntl(second, F_GETFL) & O_ACCMODE);
  dm_close_by_handle(h(), hlen_, fd);
  dm_close_by_handle(h(), hlen_, second);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_FALSE(IsOpen(second));
}

TEST_F(FdCacheSimTest, HeldHandleIsOpenedOnceUntilReleased) {
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h(), hlen_));
  fs.StartLog();
  const int fd = dm_open_by_handle(h(), hlen_, 0);
  ASSERT_GE(fd, 0);
  dm_close_by_handle(h(), hlen_, fd);
  EXPECT_EQ(fd, dm_open_by_handle(h(), hlen_, 0));
  dm_close_by_handle(h(), hlen_, fd);
  EXPECT_EQ(1u, fs.LogLinesWith({"open ", "handle="}).size());
  EXPECT_TRUE(IsOpen(fd));
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, h(), hlen_));
  EXPECT_FALSE(IsOpen(fd));
}

TEST_F(FdCacheSimTest, FailedOpenOfAHeldHandleCachesNothing) {
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h(), hlen_));
  fs.SetFaults("kind=open,path=/mnt/f,errno=EACCES");
  EXPECT_EQ("-1 EACCES", OUTCOME(dm_open_by_handle(h(), hlen_, 0)));
  int cached = 0;
  ASSERT_EQ(1, dm_fdcache_search(h(), hlen_, &cached));
  EXPECT_EQ(-1, cached);
}

}  // namespace
