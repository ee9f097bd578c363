// Handles: path to handle, descriptor to handle, handle to path and open by
// handle, with the handle's exact bytes.
#include <climits>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

class HandlesTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    make_dir("d");
    make_file("d/f");
  }
};

TEST_F(HandlesTest, FileHandleLayout) {
  Buf h = path_to_handle(path("d/f"));
  ASSERT_EQ(24u, h.size());
  struct stat st;
  ASSERT_EQ(0, stat(path("d/f").c_str(), &st));
  EXPECT_EQ(0x00000000c0ffee01ULL, get<std::uint64_t>(h, 0));  // host order
  EXPECT_EQ(0x00, h[8]);
  EXPECT_EQ(0x0E, h[9]);
  EXPECT_EQ(0, get<std::uint16_t>(h, 10));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_ino) & 0x7F807FFFFFFFFFFFULL, get_be64(h, 16));
}

TEST_F(HandlesTest, FlagsChooseWhetherTheLastLinkIsFollowed) {
  ASSERT_EQ(0, symlink("d/f", path("ln").c_str()));
  Buf target = path_to_handle(path("d/f"));
  EXPECT_EQ(target, path_to_handle(path("ln"), 1));
  EXPECT_EQ(target, path_to_handle(path("ln"), 0));
  Buf link = path_to_handle(path("ln"), 2);
  ASSERT_EQ(24u, link.size());
  EXPECT_NE(target, link);
  EXPECT_EQ("ln", handle_to_path(link));
}

TEST_F(HandlesTest, PathErrors) {
  errno = 0;
  EXPECT_TRUE(path_to_handle(path("missing")).empty());
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(path_to_handle(root_).empty());  // exists, but not kxfs
  EXPECT_EQ(EINVAL, errno);
  EXPECT_TRUE(path_to_handle("").empty());
  EXPECT_EQ(ENOENT, errno);
  Buf b(1112, 0);
  put<std::uint32_t>(b, 80, 1025);
  EXPECT_EQ(-1, dmig(7, b));
  EXPECT_EQ(ENAMETOOLONG, errno);
  put<std::uint32_t>(b, 80, 3);  // length and NUL disagree
  std::memcpy(b.data() + 84, "abcdef", 7);
  EXPECT_EQ(-1, dmig(7, b));
  EXPECT_EQ(EINVAL, errno);
}

// The driver's lookup is the kernel's: ".." after a symbolic link leaves the
// link's target, and a missing component or a slash after a file fails even
// where the text alone would name an existing object.
TEST_F(HandlesTest, PathIsLookedUpAsTheKernelDoes) {
  make_dir("d/sub");
  ASSERT_EQ(0, symlink("d/sub", path("s").c_str()));
  Buf f = path_to_handle(path("d/f"));
  EXPECT_EQ(f, path_to_handle(path("s/../f")));
  errno = 0;
  EXPECT_TRUE(path_to_handle(path("missing/../d/f")).empty());
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(path_to_handle(path("d/f/")).empty());
  EXPECT_EQ(ENOTDIR, errno);
  char cwd[PATH_MAX];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  ASSERT_EQ(0, chdir(path("d").c_str()));
  Buf relative = path_to_handle("f");
  ASSERT_EQ(0, chdir(cwd));
  EXPECT_EQ(f, relative);
}

TEST_F(HandlesTest, DescriptorHandleEqualsPathHandle) {
  Buf b(1112, 0);
  int fd = open(path("d").c_str(), O_RDONLY);
  put<std::int32_t>(b, 72, fd);
  ASSERT_EQ(0, ioctl(fd, 0x416, b.data()));
  close(fd);
  EXPECT_EQ(path_to_handle(path("d")), Buf(b.begin(), b.begin() + 24));
}

TEST_F(HandlesTest, HandleToPathRoundTrip) {
  EXPECT_EQ("d/f", handle_to_path(path_to_handle(path("d/f"))));
  EXPECT_EQ("", handle_to_path(path_to_handle(mnt_)));
  Buf root(24, 0);  // bytes 16-23 read as a host-order 2 name the mount point
  put<std::uint64_t>(root, 0, 0xc0ffee01ULL);
  root[9] = 14;
  put<std::uint64_t>(root, 16, 2);
  EXPECT_EQ("", handle_to_path(root));
}

TEST_F(HandlesTest, HandleToPathFindsRenamedAndUnseenFiles) {
  Buf h = path_to_handle(path("d/f"));
  ASSERT_EQ(0, rename(path("d").c_str(), path("e").c_str()));
  EXPECT_EQ("e/f", handle_to_path(h));
  make_file("e/new");  // never named to the simulator: found by a walk
  struct stat st;
  ASSERT_EQ(0, stat(path("e/new").c_str(), &st));
  Buf fresh = h;
  put<std::uint32_t>(fresh, 12, 0);  // generation 0 matches any
  for (int i = 0; i < 8; ++i) {
    fresh[16 + static_cast<std::size_t>(i)] = static_cast<unsigned char>(st.st_ino >> (56 - 8 * i));
  }
  EXPECT_EQ("e/new", handle_to_path(fresh));
  ASSERT_EQ(0, unlink(path("e/new").c_str()));
  EXPECT_EQ("!" + std::to_string(ENOENT), handle_to_path(fresh));
}

TEST_F(HandlesTest, HandleToPathRefusesBadHandles) {
  Buf h = path_to_handle(path("d/f"));
  Buf wrong_len = h;
  wrong_len[8] = 0x0E;
  wrong_len[9] = 0;
  EXPECT_EQ("!" + std::to_string(EINVAL), handle_to_path(wrong_len));
  Buf other_fs = h;
  other_fs[0] ^= 1;
  EXPECT_EQ("!" + std::to_string(EINVAL), handle_to_path(other_fs));
  Buf stale = h;
  stale[12] ^= 0x80;  // another generation of the inode
  EXPECT_EQ("!" + std::to_string(ESTALE), handle_to_path(stale));
}

TEST_F(HandlesTest, OpenBySpecialPath) {
  Buf h = path_to_handle(path("d/f"));
  int fd = open(special_path(h).c_str(), O_NONBLOCK);
  ASSERT_GE(fd, 0) << strerror(errno);
  char buf[8] = {};
  EXPECT_EQ(4, read(fd, buf, sizeof buf));
  EXPECT_STREQ("data", buf);
  close(fd);
  h[18] ^= 0x40;  // an inode far beyond any the file system has
  errno = 0;
  EXPECT_EQ(-1, open(special_path(h).c_str(), O_RDONLY));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(-1, open((mnt_ + "/__KXFS_Handle.XYZ").c_str(), O_RDONLY));
  EXPECT_EQ(EINVAL, errno);
}

TEST_F(HandlesTest, FileSystemDataCarriesRenameTracking) {
  Buf b(64, 0xAA);
  EXPECT_EQ(0, file_ioctl(mnt_, 0xA1E, b));
  EXPECT_EQ(0x100u, get<std::uint64_t>(b, 0));
  Buf before = path_to_handle(path("d/f"));
  ASSERT_EQ(0, cli("mkfs " + mnt_ + " --rename-tracking off").status);
  EXPECT_EQ(0, file_ioctl(mnt_, 0xA1E, b));
  EXPECT_EQ(0u, get<std::uint64_t>(b, 0));
  EXPECT_EQ(before, path_to_handle(path("d/f"))) << "registering again keeps the fsid";
}

}  // namespace
}  // namespace kxsim_test
