// Mount cache: bucket sizing, builds across mount-table changes,
// lookups of mounted and unmounted file systems, and the report.
#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "dm_test.h"
#include "kxdmapi/kxdmapi_private.h"

namespace {

TEST(MountCacheTableTest, BucketArrayIsFourTimesTheFloorPowerOfTwoAtLeast32) {
  for (size_t n = 0; n <= 15; ++n) EXPECT_EQ(32u, dm_mnt_cache_tab_size_for(n)) << n;
  for (size_t n = 16; n <= 31; ++n) EXPECT_EQ(64u, dm_mnt_cache_tab_size_for(n)) << n;
  EXPECT_EQ(128u, dm_mnt_cache_tab_size_for(32));
  EXPECT_EQ(2048u, dm_mnt_cache_tab_size_for(1000));
}

// Without the driver nothing can be built, and nothing is reported.
TEST(MountCacheNoDriverTest, EverythingFailsCleanly) {
  setenv("KXSIM_CONFIG", "", 1);  // no driver, whatever the default
  dm_mnt_change_time_t t{};
  int count = 7;
  dm_fsid_t fsid = 0x0807060504030201ULL;
  char mnt[DM_PATH_BUFSIZE];
  EXPECT_EQ(-1, get_last_mount_change_time(&t));
  EXPECT_EQ(-1, dm_check_mnt_cache_stale());
  EXPECT_EQ(nullptr, dm_report_mnt_cache(&count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(-1, dm_fshandle_to_mountpoint(&fsid, sizeof fsid, mnt));
  EXPECT_EQ(-1, dm_fs_rename_tracking_enabled(&fsid, sizeof fsid));
}

class MountCacheTest : public vdtest::SimFsTest {
 protected:
  static int Build() {
    pthread_mutex_lock(&dm_mount_cache_lock);
    int result = dm_build_mnt_cache();
    pthread_mutex_unlock(&dm_mount_cache_lock);
    return result;
  }
  static std::vector<std::string> CachedMounts() {
    std::vector<std::string> mounts;
    pthread_mutex_lock(&dm_mount_cache_lock);
    for (const mnt_cache_t *rec = mount_cache; rec != nullptr; rec = rec->mnt_next)
      mounts.push_back(rec->mnt_dir);
    pthread_mutex_unlock(&dm_mount_cache_lock);
    return mounts;
  }
  static dm_fsid_t FsidOf(const std::string &path) {
    void *hanp = nullptr;
    size_t hlen = 0;
    dm_fsid_t fsid = 0;
    if (dm_path_to_fshandle(path.c_str(), &hanp, &hlen) != 0) return 0;
    dm_handle_to_fsid(hanp, hlen, &fsid);
    dm_handle_free(hanp, hlen);
    return fsid;
  }
  static std::string MountOf(dm_fsid_t fsid) {
    char mnt[DM_PATH_BUFSIZE];
    return dm_fshandle_to_mountpoint(&fsid, sizeof fsid, mnt) == 0 ? mnt : "<none>";
  }
};

TEST_F(MountCacheTest, ReportListsTheMountWithItsFsid) {
  ASSERT_EQ(-1, kxdmapi_dmfd);
  dm_mnt_change_time_t t{};
  EXPECT_EQ(0, get_last_mount_change_time(&t));
  EXPECT_EQ(-1, kxdmapi_dmfd) << "the change time comes from the mount-change node, not a channel";
  int count = 0;
  dm_mnt_cache_t *report = dm_report_mnt_cache(&count);
  ASSERT_NE(nullptr, report);
  ASSERT_EQ(1, count);
  EXPECT_EQ(fs.mnt(), report[0].cached_mnt);
  EXPECT_EQ(FsidOf(fs.mnt()), report[0].cached_fsid);
  free(report[0].cached_mnt);
  free(report);
  EXPECT_EQ(32u, mount_cache_tab_size);
}

TEST_F(MountCacheTest, RebuildsOnlyWhenTheMountTableChanged) {
  EXPECT_EQ(1, Build());
  EXPECT_EQ(0, Build()) << "an unchanged table keeps the cache hot";
  ASSERT_TRUE(fs.TouchConfig());
  EXPECT_EQ(1, dm_check_mnt_cache_stale());
  EXPECT_EQ(1, dm_check_mnt_cache_stale()) << "the check rebuilds nothing";
  EXPECT_EQ(1, Build());
  EXPECT_EQ(0, dm_check_mnt_cache_stale());
  EXPECT_EQ(std::vector<std::string>{fs.mnt()}, CachedMounts());
}

TEST_F(MountCacheTest, LookupFindsNewMountsAndEndsForUnmountedOnes) {
  dm_fsid_t first = FsidOf(fs.mnt());
  EXPECT_EQ(fs.mnt(), MountOf(first));
  std::string second = fs.Mkfs("second");
  ASSERT_FALSE(second.empty());
  ASSERT_TRUE(fs.TouchConfig(5));  // distinct even within one second
  EXPECT_EQ(second, MountOf(FsidOf(second))) << "a miss rebuilds the cache";
  EXPECT_EQ(2u, CachedMounts().size());
  EXPECT_EQ("<none>", MountOf(first ^ 0x5A5A));
  char fsname[DM_PATH_BUFSIZE];
  char mnt[DM_PATH_BUFSIZE];
  EXPECT_EQ(0, dm_fshandle_to_filesystem(&first, sizeof first, fsname, mnt));
  EXPECT_EQ(fs.mnt(), mnt);
  EXPECT_EQ(-1, dm_fshandle_to_mountpoint(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, mnt));
}

// A mount that cannot be resolved fails the build only when it is listed
// last (see the over-long mount point below).
TEST_F(MountCacheTest, UnresolvableMountBeforeTheLastDoesNotFailTheBuild) {
  ASSERT_FALSE(fs.Mkfs("alpha").empty());
  ASSERT_FALSE(fs.Mkfs("beta").empty());
  fs.SetFaults("kind=dmig,code=7,path=/alpha,errno=EIO");
  EXPECT_EQ(1, Build());
}

// Mount points take all of DM_PATH_MAX: one of 1,024 characters gets a
// record and comes back whole; a longer one is tried and, listed last,
// fails the build.
TEST_F(MountCacheTest, MountPointsOfUpTo1024CharactersHaveRecords) {
  auto path_of = [&](std::size_t len) {
    std::string p = fs.root() + "/l" + std::to_string(len);
    while (p.size() < len)
      p += "/" + std::string(std::min<std::size_t>(200, len - p.size() - 1), 'm');
    std::filesystem::create_directories(std::filesystem::path(p).parent_path());
    return p;
  };
  const std::string longest = path_of(DM_PATH_MAX);
  ASSERT_EQ(DM_PATH_MAX, longest.size());
  ASSERT_EQ(0, fs.Kxsim({"mkfs", longest}).exit_code);
  EXPECT_EQ(1, Build());
  EXPECT_EQ(longest, MountOf(FsidOf(longest)));
  ASSERT_EQ(0, fs.Kxsim({"mkfs", path_of(DM_PATH_MAX + 1)}).exit_code);
  ASSERT_TRUE(fs.TouchConfig(5));
  EXPECT_EQ(-1, Build()) << "the last kxfs mount cannot be resolved";
  EXPECT_EQ(2u, CachedMounts().size()) << "the others are kept";
}

TEST_F(MountCacheTest, RenameTrackingComesFromTheFileSystemData) {
  dm_fsid_t fsid = FsidOf(fs.mnt());
  EXPECT_EQ(1, dm_fs_rename_tracking_enabled(&fsid, sizeof fsid));
  std::string plain = fs.root() + "/plain";
  ASSERT_EQ(0, fs.Kxsim({"mkfs", plain, "--rename-tracking", "off"}).exit_code);
  dm_fsid_t plain_fsid = FsidOf(plain);
  EXPECT_EQ(0, dm_fs_rename_tracking_enabled(&plain_fsid, sizeof plain_fsid));
  fs.SetFaults("kind=ioctl,code=0xa1e,errno=EIO");
  ASSERT_TRUE(fs.TouchConfig());
  EXPECT_EQ(1, Build());
  EXPECT_EQ(-1, dm_fs_rename_tracking_enabled(&fsid, sizeof fsid)) << "kept, but unset";
  EXPECT_EQ(fs.mnt(), MountOf(fsid));
}

}  // namespace
