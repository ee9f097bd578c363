// External representations: the 96-byte ExternalRepSet_t by offset.
#include "sim_fixture.h"

namespace kxsim_test {
namespace {

// entry flags 0, offset 8, length 16, key 24 (32), fieldlen 56, datalen 60,
// dataoffset 64, data 72, op flags 80.
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

class ExtRepTest : public SimTest {
 protected:
  void SetUp() override {
    SimTest::SetUp();
    make_file("f");
  }
};

TEST_F(ExtRepTest, SetGetRemove) {
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
  int err = 0;
  EXPECT_EQ(-1, file_ioctl(path("f"), 0xD32, q, &err));
  EXPECT_EQ(ENOENT, err);
  EXPECT_EQ(-1, file_ioctl(path("f"), 0xD33, rm, &err));
  EXPECT_EQ(ENOENT, err);
}

TEST_F(ExtRepTest, ToolAndDriverAgree) {
  ASSERT_EQ(0, cli("rep set " + path("f") + " OBJF 0a0b").status);
  unsigned char out[4] = {};
  Buf q = rep_req("OBJF", out, sizeof out);
  ASSERT_EQ(0, file_ioctl(path("f"), 0xD32, q));
  EXPECT_EQ("0a0b", hex(out, get<std::uint32_t>(q, 60)));
  EXPECT_NE(std::string::npos, cli("show " + path("f")).out.find("rep OBJF"));
}

TEST_F(ExtRepTest, UnterminatedKeyAndNullDataAreRefused) {
  Buf b = rep_req("BLOB", nullptr, 0);
  std::memset(b.data() + 24, 'K', 32);
  int err = 0;
  EXPECT_EQ(-1, file_ioctl(path("f"), 0xD31, b, &err));
  EXPECT_EQ(EINVAL, err);
  Buf null_data = rep_req("REPL", nullptr, 5);
  EXPECT_EQ(-1, file_ioctl(path("f"), 0xD31, null_data, &err));
  EXPECT_EQ(EFAULT, err);
}

TEST_F(ExtRepTest, NeighbouringCallsAreAccepted) {
  for (unsigned long req : {0xD39UL, 0xD43UL, 0xD44UL}) {
    Buf b(296, 0);
    EXPECT_EQ(0, file_ioctl(path("f"), req, b)) << std::hex << req;
  }
}

}  // namespace
}  // namespace kxsim_test
