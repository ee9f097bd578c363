// Data-management attributes and file attributes, and where their state
// lives: across processes, renames and reused inode numbers.
#include <sys/syscall.h>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

// dm_get_dmattr_t / dm_set_dmattr_t / dm_remove_dmattr_t by offset.
Buf get_req(const char *name, std::uint32_t buflen) {
  Buf b(160, 0);
  put<std::uint32_t>(b, 12, buflen);
  std::memcpy(b.data() + 24, name, std::strlen(name));
  return b;
}
Buf set_req(const char *name, const Buf &value) {
  Buf b(160, 0);
  put<std::uint16_t>(b, 14, static_cast<std::uint16_t>(value.size()));
  std::memcpy(b.data() + 24, name, std::strlen(name));
  if (!value.empty())
    std::memcpy(b.data() + 32, value.data(), std::min<std::size_t>(value.size(), 128));
  return b;
}
Buf remove_req(const char *name) {
  Buf b(32, 0);
  std::memcpy(b.data() + 24, name, std::strlen(name));
  return b;
}

class AttributesTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    make_file("f");
  }
  // The attribute's value in hex as the driver returns it, or "!<errno>".
  std::string read_attr(const std::string &file, const char *name) {
    Buf b = get_req(name, 128);
    int err = 0;
    if (file_ioctl(path(file), 0x40E, b, &err) != 0) return "!" + std::to_string(err);
    return hex(b.data() + 32, get<std::uint32_t>(b, 12));
  }
  void write_attr(const std::string &file, const char *name, const Buf &v) {
    Buf b = set_req(name, v);
    ASSERT_EQ(0, file_ioctl(path(file), 0x40F, b));
  }
};

TEST_F(AttributesTest, SetGetRemove) {
  EXPECT_EQ("!" + std::to_string(ENODATA), read_attr("f", "BFST"));
  write_attr("f", "BFST", Buf{0xde, 0xad, 0xbe, 0xef});
  EXPECT_EQ("deadbeef", read_attr("f", "BFST"));
  write_attr("f", "BFST", Buf{});  // an empty value still exists
  EXPECT_EQ("", read_attr("f", "BFST"));
  Buf rm = remove_req("BFST");
  EXPECT_EQ(0, file_ioctl(path("f"), 0x422, rm));
  int err = 0;
  EXPECT_EQ(-1, file_ioctl(path("f"), 0x422, rm, &err));
  EXPECT_EQ(ENODATA, err);
}

TEST_F(AttributesTest, EightByteNamesAndLimits) {
  write_attr("f", "ABCDEFGH", Buf{1});  // no NUL within the 8 bytes
  EXPECT_EQ("01", read_attr("f", "ABCDEFGH"));
  Buf big(128, 7);
  write_attr("f", "VDEA", big);
  EXPECT_EQ(hex(big.data(), 128), read_attr("f", "VDEA"));
  Buf too_big = set_req("VDEA", big);
  put<std::uint16_t>(too_big, 14, 129);
  int err = 0;
  EXPECT_EQ(-1, file_ioctl(path("f"), 0x40F, too_big, &err));
  EXPECT_EQ(E2BIG, err);
  Buf unnamed = set_req("", Buf{1});
  EXPECT_EQ(-1, file_ioctl(path("f"), 0x40F, unnamed, &err));
  EXPECT_EQ(EINVAL, err);
}

TEST_F(AttributesTest, ShortBufferLearnsTheLength) {
  write_attr("f", "BFST", Buf(40, 0x11));
  Buf b = get_req("BFST", 32);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40E, b));
  EXPECT_EQ(40u, get<std::uint32_t>(b, 12));
}

TEST_F(AttributesTest, DmStatReportsTheFileAndItsEventMask) {
  std::ofstream(path("f"), std::ios::trunc).close();
  ASSERT_EQ(0, truncate(path("f").c_str(), 100));
  ASSERT_EQ(0, cli("events set " + path("f") + " 0x1120").status);
  Buf b(184, 0xAA);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40C, b));
  struct stat st;
  ASSERT_EQ(0, stat(path("f").c_str(), &st));
  const std::size_t s = 16;  // dm_stat inside dm_get_attr_t
  EXPECT_EQ(0x1120u, get<std::uint64_t>(b, s + 40));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_dev), get<std::uint64_t>(b, s + 48));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_ino), get<std::uint64_t>(b, s + 56));
  EXPECT_EQ(static_cast<std::uint64_t>(st.st_mode), get<std::uint64_t>(b, s + 72));
  EXPECT_EQ(100, get<std::int64_t>(b, s + 112));
  EXPECT_EQ(0u, get<std::uint64_t>(b, s + 160));  // restored without data
  EXPECT_EQ(static_cast<std::int64_t>(st.st_mtim.tv_sec), get<std::int64_t>(b, s + 128));
}

TEST_F(AttributesTest, StateIsSharedWithTheToolAndSurvivesRenames) {
  write_attr("f", "BFST", Buf{0xab});
  CmdResult got = cli("attr get " + path("f") + " BFST");
  EXPECT_EQ(0, got.status);
  EXPECT_EQ("ab\n", got.out);
  ASSERT_EQ(0, rename(path("f").c_str(), path("g").c_str()));
  ASSERT_EQ(0, cli("attr set " + path("g") + " VDEA 0102").status);
  EXPECT_EQ("ab", read_attr("g", "BFST"));
  EXPECT_EQ("0102", read_attr("g", "VDEA"));
}

TEST_F(AttributesTest, StateNeverAllocatesBlocksOfTheFile) {
  ASSERT_EQ(0, truncate(path("f").c_str(), 0));
  ASSERT_EQ(0, truncate(path("f").c_str(), 4096));
  write_attr("f", "BFST", Buf(32, 0x5A));
  ASSERT_EQ(0, cli("events set " + path("f") + " 0x70000000").status);
  ASSERT_EQ(0, cli("rep set " + path("f") + " BLOB " + std::string(400, 'e')).status);
  struct stat st;
  ASSERT_EQ(0, lstat(path("f").c_str(), &st));
  EXPECT_EQ(0, st.st_blocks);
}

TEST_F(AttributesTest, UnlinkDropsStateAndReusedInodesStartClean) {
  write_attr("f", "BFST", Buf{1});
  struct stat st;
  ASSERT_EQ(0, stat(path("f").c_str(), &st));
  ASSERT_EQ(0, unlink(path("f").c_str()));  // through the wrapper
  make_file("f");
  EXPECT_EQ("!" + std::to_string(ENODATA), read_attr("f", "BFST"));
  // Removed behind the simulator's back: the birth stamp tells the files apart.
  write_attr("f", "BFST", Buf{2});
  ASSERT_EQ(0, syscall(SYS_unlinkat, AT_FDCWD, path("f").c_str(), 0));
  make_file("f");
  EXPECT_EQ("!" + std::to_string(ENODATA), read_attr("f", "BFST"));
}

TEST_F(AttributesTest, CorruptStateIsAnErrorNotACrash) {
  write_attr("f", "BFST", Buf{1});
  struct stat st;
  ASSERT_EQ(0, stat(path("f").c_str(), &st));
  std::string state = config_ + ".state/00000000c0ffee01/" + std::to_string(st.st_ino);
  std::string born = read_text(state).substr(0, read_text(state).find('\n'));
  std::ofstream(state, std::ios::trunc) << born << "\nattr BFST zz\n";
  EXPECT_EQ("!" + std::to_string(EIO), read_attr("f", "BFST"));
}

}  // namespace
}  // namespace kxsim_test
