// Event lists of files (ioctl) and of file systems (driver requests).
#include "sim_fixture.h"

namespace kxsim_test {
namespace {

constexpr std::uint64_t kFsid = 0xc0ffee01ULL;

class EventsTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    make_file("f");
  }
  std::uint64_t file_events(std::int32_t nelem = 40) {
    Buf b(96, 0);
    put<std::int32_t>(b, 76, nelem);
    EXPECT_EQ(0, file_ioctl(path("f"), 0x40A, b));
    return get<std::uint64_t>(b, 88);
  }
};

// Set (32 bytes) and update (40 bytes): maxevent 8, fsid 16, set 24, clear 32.
Buf set_req(std::int32_t maxevent, std::uint64_t set, std::uint64_t fsid = 0) {
  Buf b(32, 0);
  put<std::int32_t>(b, 8, maxevent);
  put<std::uint64_t>(b, 16, fsid);
  put<std::uint64_t>(b, 24, set);
  return b;
}
Buf update_req(std::int32_t maxevent, std::uint64_t set, std::uint64_t clear,
               std::uint64_t fsid = 0) {
  Buf b(40, 0);
  put<std::int32_t>(b, 8, maxevent);
  put<std::uint64_t>(b, 16, fsid);
  put<std::uint64_t>(b, 24, set);
  put<std::uint64_t>(b, 32, clear);
  return b;
}

TEST_F(EventsTest, UpdateClearsOnlyTheNamedBits) {
  Buf set = set_req(40, 0x70000000 | 0x10000);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40B, set));
  EXPECT_EQ(0x70010000u, file_events());
  Buf upd = update_req(40, 0, 0x70000000);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x426, upd));
  EXPECT_EQ(0x10000u, file_events());
  EXPECT_EQ("0x10000\n", cli("events get " + path("f")).out);
}

TEST_F(EventsTest, MaxeventBoundsTheConsideredTypes) {
  ASSERT_EQ(0, cli("events set " + path("f") + " 0x8000001120").status);  // bit 39 set
  Buf set = set_req(8, 0);                                                // types 0-7 only
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40B, set));
  EXPECT_EQ(0x8000001100u, file_events());
  EXPECT_EQ(0x1100u, file_events(13));
  Buf q(96, 0);
  put<std::int32_t>(q, 76, 64);
  ASSERT_EQ(0, file_ioctl(path("f"), 0x40A, q));
  EXPECT_EQ(40, get<std::int32_t>(q, 76));  // never more than DM_EVENT_MAX
}

TEST_F(EventsTest, FileSystemEventList) {
  Buf set = set_req(40, 0x22, kFsid);
  ASSERT_EQ(0, dmig(10, set));
  Buf upd = update_req(40, 0x100, 0x2, kFsid);
  ASSERT_EQ(0, dmig(40, upd));
  Buf q(96, 0);
  put<std::int32_t>(q, 76, 40);
  put<std::uint64_t>(q, 80, kFsid);
  ASSERT_EQ(0, dmig(9, q));
  EXPECT_EQ(0x120u, get<std::uint64_t>(q, 88));
  EXPECT_EQ(0u, file_events());  // the file's own list is separate
  Buf unknown = set_req(40, 1, kFsid + 1);
  errno = 0;
  EXPECT_EQ(-1, dmig(10, unknown));
  EXPECT_EQ(EINVAL, errno);
}

}  // namespace
}  // namespace kxsim_test
