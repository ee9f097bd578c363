// Path resolution: path to handle (four forms) and back, special paths.
#include <cstdlib>

#include "dm_test.h"

namespace {

using vdtest::OwnedHandle;

// Argument checks come before any request: they hold without a driver.
class PathArgumentsTest : public ::testing::Test {
 protected:
  void SetUp() override { setenv("KXSIM_CONFIG", "", 1); }  // no driver, whatever the default
  void *hanp_ = nullptr;
  size_t hlen_ = 0;
};

TEST_F(PathArgumentsTest, PathToHandleChecksItsPath) {
  std::string longest(DM_PATH_MAX, 'p');
  std::string too_long = longest + "p";
  EXPECT_EQ("-1 EINVAL", OUTCOME(dm_path_to_handle(nullptr, &hanp_, &hlen_)));
  EXPECT_EQ("-1 ENOENT", OUTCOME(dm_path_to_handle("", &hanp_, &hlen_)));
  EXPECT_EQ("-1 ENAMETOOLONG", OUTCOME(dm_path_to_handle(too_long.c_str(), &hanp_, &hlen_)));
  EXPECT_EQ("-1 ENAMETOOLONG", OUTCOME(dm_path_to_fshandle(too_long.c_str(), &hanp_, &hlen_)));
  // Accepted paths reach the driver, which is absent here.
  EXPECT_EQ("-1 ENOSYS", OUTCOME(dm_path_to_handle(longest.c_str(), &hanp_, &hlen_)));
  EXPECT_EQ("-1 ENOSYS", OUTCOME(dm_path_to_fshandle("", &hanp_, &hlen_)));
}

TEST_F(PathArgumentsTest, HandleToPathChecksInOrder) {
  unsigned char bad[24] = {};
  unsigned char good[24] = {1, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x0E};
  char buf[64];
  size_t needed = 0;
  auto h2p = [&](const void *dir, size_t dirlen, const void *targ, size_t buflen, char *out) {
    return OUTCOME(dm_handle_to_path(dir, dirlen, targ, 24, buflen, out, &needed));
  };
  EXPECT_EQ("-1 EINVAL", h2p(bad, 24, bad, 0, buf));
  EXPECT_EQ("-1 EINVAL", h2p(nullptr, 0, good, sizeof buf, nullptr));
  EXPECT_EQ("-1 EBADF", h2p(bad, 24, good, sizeof buf, buf));
  EXPECT_EQ("-1 EBADF", h2p(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, good, sizeof buf, buf))
      << "names no directory";
  EXPECT_EQ("-1 EBADF", h2p(nullptr, 0, bad, sizeof buf, buf));
  EXPECT_EQ("-1 ENOENT", h2p(nullptr, 0, good, sizeof buf, buf)) << "nothing is mounted";
}

TEST_F(PathArgumentsTest, SpecialPathWithoutMountPointIsPrefixAndHex) {
  unsigned char h[24] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x00, 0x0E, 0,    0,
                         0,    0,    0,    1,    0,    0,    0,    0,    0,    0,    0x12, 0x34};
  uint64_t key = 0;
  char path[DM_PATH_BUFSIZE];
  char mnt[DM_PATH_BUFSIZE];
  ASSERT_EQ(0, dm_format_special_path(h, sizeof h, &key, nullptr, path));
  EXPECT_STREQ("__KXFS_Handle.1122334455667788000E0000000000010000000000001234", path);
  EXPECT_EQ(0x3412000000000000ULL, key) << "the inode field's bytes read in host order";
  EXPECT_EQ("-1 EBADF", OUTCOME(dm_format_special_path(h, 7, &key, nullptr, path)));
  EXPECT_EQ("-1 ENOENT", OUTCOME(dm_format_special_path(h, sizeof h, &key, mnt, path)));
}

class PathsTest : public vdtest::SimFsTest {
 protected:
  void SetUp() override {
    vdtest::SimFsTest::SetUp();
    ASSERT_TRUE(fs.MakeDir("dir"));
    ASSERT_TRUE(fs.MakeFile("dir/file", 100));
    ASSERT_EQ("", file_.Resolve(fs.Path("dir/file")));
  }
  OwnedHandle file_;
};

TEST_F(PathsTest, AllFourFormsAgreeAndSendTheirFlags) {
  fs.StartLog();
  std::string path = fs.Path("dir/file");
  OwnedHandle plain, client, client_nf, fsh, by_fd;
  ASSERT_EQ(0, dm_path_to_handle(path.c_str(), &plain.hanp, &plain.hlen));
  ASSERT_EQ(0, dm_path_to_handle_client(path.c_str(), &client.hanp, &client.hlen));
  ASSERT_EQ(0, dm_path_to_handle_client_nf(path.c_str(), &client_nf.hanp, &client_nf.hlen));
  ASSERT_EQ(0, dm_path_to_fshandle(path.c_str(), &fsh.hanp, &fsh.hlen));
  EXPECT_EQ(DM_HANDLE_FILE, dm_crack_handle(plain.hanp, plain.hlen, nullptr, nullptr, nullptr));
  EXPECT_EQ(plain.Hex(), client.Hex());
  EXPECT_EQ(plain.Hex(), client_nf.Hex());
  EXPECT_EQ(plain.Hex().substr(0, 16), fsh.Hex());
  EXPECT_EQ(2u, fs.LogLinesWith({"dmig 0x7 ", "flags=0"}).size());
  EXPECT_EQ(1u, fs.LogLinesWith({"dmig 0x7 ", "flags=1"}).size());
  EXPECT_EQ(1u, fs.LogLinesWith({"dmig 0x7 ", "flags=2"}).size());
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(0, dm_fd_to_handle(fd, &by_fd.hanp, &by_fd.hlen));
  close(fd);
  EXPECT_EQ(plain.Hex(), by_fd.Hex());
}

TEST_F(PathsTest, HandleToPathRoundTripsAndReportsTheRequiredLength) {
  OwnedHandle dir, root;
  ASSERT_EQ("", dir.Resolve(fs.Path("dir")));
  ASSERT_EQ("", root.Resolve(fs.mnt()));
  EXPECT_EQ(fs.Path("dir/file"), file_.Path());
  EXPECT_EQ(fs.Path("dir"), dir.Path());
  EXPECT_EQ(fs.mnt(), root.Path()) << "the mount point's relative path is empty";
  size_t required = fs.Path("dir/file").size() + 1;
  std::string buf(required, '#');
  size_t needed = 0;
  EXPECT_EQ("-1 ERANGE", OUTCOME(dm_handle_to_path(nullptr, 0, file_.hanp, file_.hlen, required - 1,
                                                   buf.data(), &needed)));
  EXPECT_EQ(required, needed);
  EXPECT_EQ('#', buf[0]) << "nothing is written on ERANGE";
  ASSERT_EQ(0, dm_handle_to_path(root.hanp, root.hlen, file_.hanp, file_.hlen, required, buf.data(),
                                 &needed));
  EXPECT_EQ(fs.Path("dir/file"), buf.c_str());
}

TEST_F(PathsTest, SpecialPathIsUnderTheMountPoint) {
  char mnt[DM_PATH_BUFSIZE];
  char path[DM_PATH_BUFSIZE];
  uint64_t key = 0;
  ASSERT_EQ(0, dm_format_special_path(file_.hanp, file_.hlen, &key, mnt, path));
  EXPECT_EQ(fs.mnt(), mnt);
  EXPECT_EQ(fs.mnt() + "/__KXFS_Handle." + file_.Hex(), path);
  // A raw host-order 2 in the inode field names the mount point itself.
  unsigned char h[24];
  std::memcpy(h, file_.hanp, sizeof h);
  std::memset(h + 16, 0, 8);
  h[16] = 2;
  ASSERT_EQ(0, dm_format_special_path(h, sizeof h, &key, mnt, path));
  EXPECT_EQ(2u, key);
  EXPECT_EQ(fs.mnt(), path);
}

TEST_F(PathsTest, DriverFailuresKeepTheirErrno) {
  OwnedHandle other;
  fs.SetFaults("kind=dmig,code=7,errno=EIO");
  EXPECT_EQ(strerror(EIO), other.Resolve(fs.Path("dir")));
  EXPECT_EQ("-1 EIO", OUTCOME(dm_path_to_fshandle(fs.mnt().c_str(), &other.hanp, &other.hlen)));
  EXPECT_EQ(nullptr, other.hanp);
  fs.SetFaults("kind=ioctl,code=0x419,errno=ESTALE");
  EXPECT_EQ("ERROR " + std::string(strerror(ESTALE)), file_.Path());
  fs.ClearFaults();
  EXPECT_EQ(strerror(ENOENT), other.Resolve(fs.Path("missing")));
}

}  // namespace
