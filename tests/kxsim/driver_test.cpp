// The control device, the Dmig frame, and handles with their exact bytes:
// what the simulated driver answers that no client library checks for it.
#include <chrono>
#include <climits>
#include <thread>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

using ControlDeviceTest = SimTest;

// A fake must fail loudly on misuse rather than answer what a driver would not.
TEST_F(ControlDeviceTest, MalformedFramesAndOtherRequestsAreRefused) {
  Buf b(256, 0), shorter(1111, 0);  // path to handle wants 1112
  EXPECT_EQ(EINVAL, dmig(1, b, 5));
  EXPECT_EQ(EINVAL, dmig(7, shorter));
  EXPECT_EQ(EINVAL, dmig(99, b));
  EXPECT_EQ(0, isatty(ctl()));
  EXPECT_EQ(ENOTTY, errno);
}

TEST_F(ControlDeviceTest, EveryTableCodeHasAnAnswer) {
  const std::pair<int, std::size_t> codes[] = {{2, 264}, {3, 8},     {4, 16},   {5, 264}, {15, 88},
                                               {16, 16}, {17, 16},   {18, 32},  {21, 24}, {22, 32},
                                               {37, 24}, {38, 1256}, {39, 1040}};
  for (auto [func, size] : codes) {
    Buf b(size, 0);
    const int err = dmig(func, b);
    EXPECT_TRUE(err == 0 || err == ENOSYS) << "code " << func << " errno " << err;
  }
}

// Seconds and microseconds of the registry's mtime, on the device and on the
// node that answers without a channel.
TEST_F(ControlDeviceTest, MountChangeTimeIsTheRegistrysMtime) {
  struct stat st;
  ASSERT_EQ(0, stat(fs.config().c_str(), &st));
  Buf expected(16, 0);
  put<std::uint64_t>(expected, 0, static_cast<std::uint64_t>(st.st_mtim.tv_sec));
  put<std::uint64_t>(expected, 8, static_cast<std::uint64_t>(st.st_mtim.tv_nsec / 1000));
  Buf t(16, 0);
  ASSERT_EQ(0, ioctl(ctl(), 0x8010E693, t.data()));
  EXPECT_EQ(expected, t);
  Buf by_node(16, 0);
  EXPECT_EQ(0, file_ioctl("/dev/kxfsctl", 0x8010E693, by_node));
  EXPECT_EQ(expected, by_node);
}

// KXSIM_LATENCY_US delays each request, and requests from two threads wait
// together rather than one after the other.
TEST_F(ControlDeviceTest, LatencyDelaysEveryRequestWithoutSerialisingThem) {
  using Clock = std::chrono::steady_clock;
  setenv("KXSIM_LATENCY_US", "100000", 1);
  const int fd = ctl();
  auto request = [fd] {
    Buf t(16, 0);
    return ioctl(fd, 0x8010E693, t.data());
  };
  const auto start = Clock::now();
  int second = -1;
  std::thread other([&] { second = request(); });
  EXPECT_EQ(0, request());
  other.join();
  const auto took = Clock::now() - start;
  unsetenv("KXSIM_LATENCY_US");
  EXPECT_EQ(0, second);
  EXPECT_GE(took, std::chrono::milliseconds(100));
  // In turn they would take at least twice the latency.
  EXPECT_LT(took, std::chrono::milliseconds(200)) << "the two requests waited in turn";
}

TEST_F(ControlDeviceTest, ClosedDescriptorIsForgotten) {
  int fd = ctl();
  close_ctl();
  int other = open("/dev/null", O_RDWR);  // likely the same number
  Buf b(256, 0);
  EXPECT_EQ(ENOTTY, dmig(1, b, 6, other)) << "descriptor " << fd << " reused as " << other;
  close(other);
}

class HandlesTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_TRUE(fs.WriteFile("d/f", "data"));
  }
};

TEST_F(HandlesTest, FileHandleLayout) {
  Buf h = path_to_handle(path("d/f"));
  ASSERT_EQ(24u, h.size());
  struct stat st;
  ASSERT_EQ(0, stat(path("d/f").c_str(), &st));
  EXPECT_EQ(0x00000000c0ffee01ULL, get<std::uint64_t>(h, 0));  // host order
  EXPECT_EQ("000e0000", hex(h.data() + 8, 4));
  std::uint64_t ino = 0;  // big-endian, the generation's bits masked out
  for (std::size_t i = 16; i < 24; ++i) ino = ino << 8 | h[i];
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_ino) & 0x7F807FFFFFFFFFFFULL, ino);
}

TEST_F(HandlesTest, PathErrors) {
  EXPECT_EQ(ENOENT, resolve_errno(path("missing")));
  EXPECT_EQ(EINVAL, resolve_errno(fs.root()));  // exists, but not kxfs
  EXPECT_EQ(ENOENT, resolve_errno(""));
  Buf b(1112, 0);
  put<std::uint32_t>(b, 80, 1025);
  EXPECT_EQ(ENAMETOOLONG, dmig(7, b));
  put<std::uint32_t>(b, 80, 3);  // length and NUL disagree
  std::memcpy(b.data() + 84, "abcdef", 7);
  EXPECT_EQ(EINVAL, dmig(7, b));
}

// The driver's lookup is the kernel's: the flags choose whether a last
// symbolic link is followed, ".." after a link leaves the link's target, and
// a missing component or a slash after a file fails even where the text
// alone would name an existing object.
TEST_F(HandlesTest, PathIsLookedUpAsTheKernelDoes) {
  ASSERT_TRUE(fs.MakeDir("d/sub"));
  ASSERT_EQ(0, symlink("d/sub", path("s").c_str()));
  ASSERT_EQ(0, symlink("d/f", path("ln").c_str()));
  Buf f = path_to_handle(path("d/f"));
  EXPECT_EQ(f, path_to_handle(path("ln"), 1));
  EXPECT_EQ(f, path_to_handle(path("ln"), 0));
  Buf link = path_to_handle(path("ln"), 2);
  ASSERT_EQ(24u, link.size());
  EXPECT_NE(f, link);
  EXPECT_EQ("ln", handle_to_path(link));
  EXPECT_EQ(f, path_to_handle(path("s/../f")));
  EXPECT_EQ(ENOENT, resolve_errno(path("missing/../d/f")));
  EXPECT_EQ(ENOTDIR, resolve_errno(path("d/f/")));
  char cwd[PATH_MAX];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof cwd));
  ASSERT_EQ(0, chdir(path("d").c_str()));
  Buf relative = path_to_handle("f");
  ASSERT_EQ(0, chdir(cwd));
  EXPECT_EQ(f, relative);
}

TEST_F(HandlesTest, HandleToPathFindsRenamedAndUnseenFiles) {
  Buf h = path_to_handle(path("d/f"));
  ASSERT_EQ(0, rename(path("d").c_str(), path("e").c_str()));
  EXPECT_EQ("e/f", handle_to_path(h));
  ASSERT_TRUE(fs.WriteFile("e/new", "data"));  // never named to the simulator: found by a walk
  struct stat st;
  ASSERT_EQ(0, stat(path("e/new").c_str(), &st));
  Buf fresh = h;
  put<std::uint32_t>(fresh, 12, 0);  // generation 0 matches any
  for (std::size_t i = 0; i < 8; ++i) {
    fresh[16 + i] = static_cast<unsigned char>(st.st_ino >> (56 - 8 * i));
  }
  EXPECT_EQ("e/new", handle_to_path(fresh));
  ASSERT_EQ(0, unlink(path("e/new").c_str()));
  EXPECT_EQ(errno_text(ENOENT), handle_to_path(fresh));
}

TEST_F(HandlesTest, HandleToPathRefusesBadHandles) {
  Buf h = path_to_handle(path("d/f"));
  Buf wrong_len = h;
  wrong_len[8] = 0x0E;
  wrong_len[9] = 0;
  EXPECT_EQ(errno_text(EINVAL), handle_to_path(wrong_len));
  Buf other_fs = h;
  other_fs[0] ^= 1;
  EXPECT_EQ(errno_text(EINVAL), handle_to_path(other_fs));
  Buf stale = h;
  stale[12] ^= 0x80;  // another generation of the inode
  EXPECT_EQ(errno_text(ESTALE), handle_to_path(stale));
  Buf root(24, 0);  // bytes 16-23 read as a host-order 2 name the mount point
  put<std::uint64_t>(root, 0, 0xc0ffee01ULL);
  root[9] = 14;
  put<std::uint64_t>(root, 16, 2);
  EXPECT_EQ("", handle_to_path(root));
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
  EXPECT_EQ(ENOENT, open_errno(special_path(h)));
  EXPECT_EQ(EINVAL, open_errno(fs.mnt() + "/__KXFS_Handle.XYZ"));
}

}  // namespace
}  // namespace kxsim_test
