// The open-file cache. Table cases need no file system (pipes stand in for
// descriptors opened by handle); SimFs cases open files of a simulated mount.
#include "dm_test.h"

namespace {

using dmtest::Bytes;
using dmtest::IsOpen;

Bytes MakeFileHandle(uint64_t ino) {
  return dmtest::FileHandle(0x1234, ino);
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
  std::vector<Bytes> HoldDistinct(int n) {
    std::vector<Bytes> hs;
    for (int i = 0; i < n; ++i) {
      hs.push_back(MakeFileHandle(100 + static_cast<uint64_t>(i)));
      EXPECT_EQ(0, dm_obj_ref_hold(0, -1, hs.back().data(), 24));
    }
    return hs;
  }
};

TEST_F(FdCacheTest, NinthDistinctHoldFailsUntilASlotIsFreed) {
  auto hs = HoldDistinct(8);
  Bytes ninth = MakeFileHandle(999);
  EXPECT_EQ("-1 ENOMEM", OUTCOME(dm_obj_ref_hold(0, -1, ninth.data(), 24)));
  EXPECT_EQ(0, dm_obj_ref_query(0, -1, ninth.data(), 24));
  EXPECT_EQ(0, dm_obj_ref_hold(0, -1, hs[5].data(), 24)) << "a repeat hold needs no slot";
  EXPECT_EQ(2u, dm_fd_cache[5].fd_count);
  EXPECT_EQ(1, dm_obj_ref_query(0, -1, hs[5].data(), 24));
  EXPECT_EQ(0, errno);
  // The freed slot three is taken by the next new hold.
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, hs[3].data(), 24));
  EXPECT_EQ(0u, dm_fd_cache[3].fd_handlen);
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, ninth.data(), 24));
  EXPECT_EQ(0, memcmp(&dm_fd_cache[3].fd_handle, ninth.data(), 24));
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
  Bytes bad = dmtest::FileHandle(0, 7);  // fsid 0
  for (auto call : {dm_obj_ref_hold, dm_obj_ref_rele, dm_obj_ref_query}) {
    EXPECT_EQ("-1 EBADF", OUTCOME(call(0, -1, bad.data(), 24)));
  }
  EXPECT_EQ(-1, dm_obj_ref_hold(0, -1, DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  EXPECT_EQ(-1, dm_open_by_handle(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, 0));
  Bytes big(80);
  EXPECT_EQ(0, dm_fdcache_handle_hold(big.data(), big.size()));  // would overflow
  EXPECT_EQ(0, dm_fdcache_handle_hold(nullptr, 24));
  for (const dm_fd_entry_t &e : dm_fd_cache) EXPECT_EQ(0u, e.fd_handlen);
  HoldDistinct(1);  // a null look-up must not reach the entry's comparison
  EXPECT_EQ(0, dm_fdcache_search(nullptr, 24, nullptr));
}

TEST_F(FdCacheTest, CloseKeepsTheHeldDescriptorAndClosesAnyOther) {
  Bytes h = MakeFileHandle(10);
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

  const int plain = NewDescriptor();
  dm_close_by_handle(MakeFileHandle(11).data(), 24, plain);  // not held
  EXPECT_FALSE(IsOpen(plain));
}

// ---- Opening files of a simulated mount by handle ------------------------

class FdCacheSimTest : public dmtest::SimFileTest {
 protected:
  void SetUp() override {
    SimFileTest::SetUp();
    dm_fdcache_flush();
  }
  void TearDown() override { dm_fdcache_flush(); }
};

TEST_F(FdCacheSimTest, UnheldOpenWithFlagsZeroIsNonBlockingReadOnly) {
  const int fd = dm_open_by_handle(h(), hlen(), 0);
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  const int second = dm_open_by_handle(h(), hlen(), O_RDWR);
  EXPECT_EQ(O_RDWR, fcntl(second, F_GETFL) & O_ACCMODE);
  dm_close_by_handle(h(), hlen(), fd);
  dm_close_by_handle(h(), hlen(), second);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_FALSE(IsOpen(second));
}

TEST_F(FdCacheSimTest, HeldHandleIsOpenedOnceUntilTheLastRelease) {
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h(), hlen()));
  ASSERT_EQ(0, dm_obj_ref_hold(0, -1, h(), hlen()));
  // A failed open caches nothing.
  fs.SetFaults("kind=open,path=/mnt/f,errno=EACCES");
  EXPECT_EQ("-1 EACCES", OUTCOME(dm_open_by_handle(h(), hlen(), 0)));
  int cached = 0;
  ASSERT_EQ(1, dm_fdcache_search(h(), hlen(), &cached));
  EXPECT_EQ(-1, cached);
  fs.ClearFaults();
  fs.StartLog();
  const int fd = dm_open_by_handle(h(), hlen(), 0);
  ASSERT_GE(fd, 0);
  dm_close_by_handle(h(), hlen(), fd);
  EXPECT_EQ(fd, dm_open_by_handle(h(), hlen(), 0));
  dm_close_by_handle(h(), hlen(), fd);
  EXPECT_EQ(1u, fs.LogLinesWith({"open ", "handle="}).size());
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, h(), hlen()));
  EXPECT_TRUE(IsOpen(fd)) << "one hold is left";
  ASSERT_EQ(0, dm_obj_ref_rele(0, -1, h(), hlen()));
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ("-1 ENOENT", OUTCOME(dm_obj_ref_rele(0, -1, h(), hlen())));
}

}  // namespace
