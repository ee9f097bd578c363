// A file's simulated state (data-management attributes, event lists and
// external representations): the requests' byte layouts, and where the
// state lives: across processes, renames and reused inode numbers.
#include <sys/syscall.h>

#include <algorithm>
#include <fstream>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

// Event set: maxevent 8, fsid 16, set 24.
Buf events_req(std::int32_t maxevent, std::uint64_t set, std::uint64_t fsid = 0) {
  Buf b(32, 0);
  put<std::int32_t>(b, 8, maxevent);
  put<std::uint64_t>(b, 16, fsid);
  put<std::uint64_t>(b, 24, set);
  return b;
}

// ExternalRepSet_t: length 16, key 24 (32 bytes), fieldlen 56, datalen 60,
// data 72, op flags 80.
Buf rep_req(const char *key, void *data, std::uint32_t datalen, std::uint32_t op_flags = 0) {
  Buf b(96, 0);
  put<std::uint64_t>(b, 16, 4096);
  std::memcpy(b.data() + 24, key, std::strlen(key));
  put<std::uint32_t>(b, 56, datalen);
  put<std::uint32_t>(b, 60, datalen);
  put<std::uint64_t>(b, 72, reinterpret_cast<std::uintptr_t>(data));
  put<std::uint32_t>(b, 80, op_flags);
  return b;
}

class ObjectStateTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    ASSERT_TRUE(fs.WriteFile("f", "data"));
  }
  // The attribute's value in hex as the driver returns it, or "!<errno>".
  std::string read_attr(const std::string &file, const char *name) {
    Buf b = attr_req(name);
    if (int err = file_ioctl(path(file), 0x40E, b)) return errno_text(err);
    return hex(b.data() + 32, get<std::uint32_t>(b, 12));
  }
  // The attribute request's errno, 0 when it succeeded.
  int write_attr(const std::string &file, Buf b) { return file_ioctl(path(file), 0x40F, b); }
  std::uint64_t file_events(std::int32_t nelem = 40) {
    Buf b(96, 0);
    put<std::int32_t>(b, 76, nelem);
    EXPECT_EQ(0, file_ioctl(path("f"), 0x40A, b));
    return get<std::uint64_t>(b, 88);
  }
};

TEST_F(ObjectStateTest, AttributeNamesAndSizesTheDriverRefuses) {
  EXPECT_EQ(0, write_attr("f", attr_req("ABCDEFGH", {1})));  // no NUL within the 8 bytes
  EXPECT_EQ("01", read_attr("f", "ABCDEFGH"));
  Buf too_big = attr_req("VDEA", Buf(128, 7));
  put<std::uint16_t>(too_big, 14, 129);
  EXPECT_EQ(E2BIG, write_attr("f", too_big));
  EXPECT_EQ(EINVAL, write_attr("f", attr_req("", {1})));
}

TEST_F(ObjectStateTest, DmStatReportsTheFileAndItsEventMask) {
  ASSERT_EQ(0, truncate(path("f").c_str(), 0));
  ASSERT_EQ(0, truncate(path("f").c_str(), 100));
  sim({"events", "set", path("f"), "0x1120"});
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

// maxevent bounds the types a request considers, and a file system's list
// is its own: only a registered fsid has one.
TEST_F(ObjectStateTest, MaxeventAndTheFileSystemsOwnList) {
  sim({"events", "set", path("f"), "0x8000001120"});  // bit 39 set
  Buf set = events_req(8, 0);                         // types 0-7 only
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40B, set));
  EXPECT_EQ(0x8000001100u, file_events());
  EXPECT_EQ(0x1100u, file_events(13));
  Buf q(96, 0);
  put<std::int32_t>(q, 76, 64);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40A, q));
  EXPECT_EQ(40, get<std::int32_t>(q, 76));  // never more than DM_EVENT_MAX
  Buf fs_set = events_req(40, 0x22, 0xc0ffee01ULL);
  ASSERT_EQ(0, dmig(10, fs_set));
  EXPECT_EQ(0x8000001100u, file_events());
  Buf unknown = events_req(40, 1, 0xc0ffee02ULL);
  EXPECT_EQ(EINVAL, dmig(10, unknown));
}

TEST_F(ObjectStateTest, ExternalRepresentationSetGetRemove) {
  char value[] = "blob-tag-0001";
  Buf set = rep_req("BLOB", value, 13);
  ASSERT_EQ(0, file_ioctl(path("f"), 0xD31, set));
  char out[8] = {};
  Buf q = rep_req("BLOB", out, sizeof out);
  ASSERT_EQ(0, file_ioctl(path("f"), 0xD32, q));
  EXPECT_EQ(13u, get<std::uint32_t>(q, 56));  // the whole value's length
  EXPECT_EQ(8u, get<std::uint32_t>(q, 60));   // what fitted
  EXPECT_EQ("blob-tag", std::string(out, 8));
  Buf rm = rep_req("BLOB", nullptr, 0, 4);
  ASSERT_EQ(0, file_ioctl(path("f"), 0xD33, rm));
  EXPECT_EQ(ENOENT, file_ioctl(path("f"), 0xD32, q));
  EXPECT_EQ(ENOENT, file_ioctl(path("f"), 0xD33, rm));
}

TEST_F(ObjectStateTest, ExternalRepresentationRefusesBadRequestsAndAcceptsItsNeighbours) {
  Buf b = rep_req("BLOB", nullptr, 0);
  std::memset(b.data() + 24, 'K', 32);  // an unterminated key
  EXPECT_EQ(EINVAL, file_ioctl(path("f"), 0xD31, b));
  Buf null_data = rep_req("REPL", nullptr, 5);
  EXPECT_EQ(EFAULT, file_ioctl(path("f"), 0xD31, null_data));
  for (unsigned long req : {0xD39UL, 0xD43UL, 0xD44UL}) {
    Buf any(296, 0);
    EXPECT_EQ(0, file_ioctl(path("f"), req, any)) << std::hex << req;
  }
}

TEST_F(ObjectStateTest, StateIsSharedWithTheToolAndSurvivesRenames) {
  ASSERT_EQ(0, write_attr("f", attr_req("BFST", {0xab})));
  ASSERT_EQ(0, rename(path("f").c_str(), path("g").c_str()));
  sim({"rep", "set", path("g"), "OBJF", "0a0b"});
  EXPECT_EQ("ab", read_attr("g", "BFST"));
  unsigned char out[4] = {};
  Buf q = rep_req("OBJF", out, sizeof out);
  ASSERT_EQ(0, file_ioctl(path("g"), 0xD32, q));
  EXPECT_EQ("0a0b", hex(out, get<std::uint32_t>(q, 60)));
}

// Blockless files are what the tool looks for: state must never give a
// restored file blocks of its own.
TEST_F(ObjectStateTest, StateNeverAllocatesBlocksOfTheFile) {
  ASSERT_EQ(0, truncate(path("f").c_str(), 0));
  ASSERT_EQ(0, truncate(path("f").c_str(), 4096));
  ASSERT_EQ(0, write_attr("f", attr_req("BFST", Buf(32, 0x5A))));
  sim({"events", "set", path("f"), "0x70000000"});
  sim({"rep", "set", path("f"), "BLOB", std::string(400, 'e')});
  struct stat st;
  ASSERT_EQ(0, lstat(path("f").c_str(), &st));
  EXPECT_EQ(0, st.st_blocks);
}

TEST_F(ObjectStateTest, UnlinkDropsStateAndReusedInodesStartClean) {
  ASSERT_EQ(0, write_attr("f", attr_req("BFST", {1})));
  ASSERT_EQ(0, unlink(path("f").c_str()));  // through the wrapper
  ASSERT_TRUE(fs.WriteFile("f", "data"));
  EXPECT_EQ(errno_text(ENODATA), read_attr("f", "BFST"));
  // Removed behind the simulator's back: the birth stamp tells the files apart.
  ASSERT_EQ(0, write_attr("f", attr_req("BFST", {2})));
  ASSERT_EQ(0, syscall(SYS_unlinkat, AT_FDCWD, path("f").c_str(), 0));
  ASSERT_TRUE(fs.WriteFile("f", "data"));
  EXPECT_EQ(errno_text(ENODATA), read_attr("f", "BFST"));
}

TEST_F(ObjectStateTest, CorruptStateIsAnErrorNotACrash) {
  ASSERT_EQ(0, write_attr("f", attr_req("BFST", {1})));
  struct stat st;
  ASSERT_EQ(0, stat(path("f").c_str(), &st));
  std::string state = fs.config() + ".state/00000000c0ffee01/" + std::to_string(st.st_ino);
  std::string born = ReadFile(state).substr(0, ReadFile(state).find('\n'));
  std::ofstream(state, std::ios::trunc) << born << "\nattr BFST zz\n";
  EXPECT_EQ(errno_text(EIO), read_attr("f", "BFST"));
}

}  // namespace
}  // namespace kxsim_test
