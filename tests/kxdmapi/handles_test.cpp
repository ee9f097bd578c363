// Handles: the wire format, classification, conversions, order, hash and hex text.
#include "dm_test.h"

extern "C" int kxdmapi_c_header_check(void);

namespace {

using dmtest::Bytes;
using dmtest::FileHandle;

std::string Hex(const void *p, size_t n) {
  std::string text(2 * n + 1, '\0');
  dm_binary_to_hex(p, n, text.data());
  text.resize(2 * n);
  return text;
}

int Crack(const Bytes &h, size_t len) {
  return dm_crack_handle(h.data(), len, nullptr, nullptr, nullptr);
}

class HandlesTest : public ::testing::Test {
 protected:
  void SetUp() override { kxdmapi_debug_flags = 0; }  // results only here
  const dm_fsid_t fsid_ = 0x1122334455667788ULL;
};

TEST_F(HandlesTest, PublicHeadersCompileAsC) {
  EXPECT_EQ(0, kxdmapi_c_header_check());
}

TEST_F(HandlesTest, MadeHandlesFollowTheWireFormatAndMaskTheInode) {
  dm_ino_t ino = 0x0100030405060708ULL;  // no masked bits set
  dm_igen_t gen = 0xA1B2C3D4u;
  void *hanp = nullptr;
  size_t hlen = 0;
  ASSERT_EQ(0, dm_make_handle(&fsid_, &ino, &gen, &hanp, &hlen));
  EXPECT_EQ(
      "8877665544332211"
      "000E"
      "0000"
      "A1B2C3D4"
      "0100030405060708",
      Hex(hanp, hlen));
  dm_handle_free(hanp, hlen);
  // The rest of a caller's 64-byte record, pad2 included, is zeroed.
  ino = ~dm_ino_t{0};
  dm_handle_t rec;
  std::memset(&rec, 0xEE, sizeof rec);
  ASSERT_EQ(24u, dm_make_handle_nocopy(&fsid_, &ino, &gen, &rec));
  EXPECT_EQ("8877665544332211000E0000A1B2C3D47F807FFFFFFFFFFF" + std::string(80, '0'),
            Hex(&rec, sizeof rec));
  dm_ino_t got = 0;
  EXPECT_EQ(0, dm_handle_to_ino(&rec, 24, &got));
  EXPECT_EQ(0x7F807FFFFFFFFFFFULL, got);
}

TEST_F(HandlesTest, CrackClassifiesAndRejectsWithoutTouchingErrno) {
  Bytes good = FileHandle(fsid_, 42, 3);
  Bytes swapped_len = good;
  std::swap(swapped_len[8], swapped_len[9]);
  Bytes pad1 = good;
  pad1[11] = 1;
  errno = 1234;
  EXPECT_EQ(DM_HANDLE_GLOBAL,
            dm_crack_handle(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, nullptr, nullptr, nullptr));
  EXPECT_EQ(DM_HANDLE_FILESYSTEM, Crack(good, 8));
  EXPECT_EQ(DM_HANDLE_FILE, Crack(good, 24));
  EXPECT_EQ(DM_HANDLE_FILE, Crack(FileHandle(fsid_, 42, 3, 30), 30))
      << "any length with a matching field";
  EXPECT_EQ(DM_HANDLE_FILE, Crack(FileHandle(fsid_, 0, 0, 10), 10));
  EXPECT_EQ(0, dm_crack_handle(nullptr, 24, nullptr, nullptr, nullptr));
  EXPECT_EQ(0, Crack(good, 7));
  EXPECT_EQ(0, Crack(good, 23));
  EXPECT_EQ(0, Crack(FileHandle(0, 42, 3), 24));
  EXPECT_EQ(0, Crack(FileHandle(0, 42, 3), 8));
  EXPECT_EQ(0, Crack(swapped_len, 24));
  EXPECT_EQ(0, Crack(pad1, 24));
  EXPECT_EQ(0, Crack(FileHandle(fsid_, 42, 3, 65), 65)) << "65 bytes even with field 55";
  EXPECT_EQ(1, dm_handle_is_valid(DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  EXPECT_EQ(0, dm_handle_is_global(DM_GLOBAL_HANP, 8));
  EXPECT_EQ(1234, errno);
}

TEST_F(HandlesTest, ConversionsRefuseHandlesWithoutTheFieldAsEBADF) {
  Bytes file = FileHandle(fsid_, 42, 3);
  dm_fsid_t fsid = 0;
  dm_ino_t ino = 0;
  dm_igen_t gen = 0;
  void *fsh = nullptr;
  size_t fshlen = 0;
  EXPECT_EQ(0, dm_handle_to_fsid(file.data(), 8, &fsid));
  EXPECT_EQ(fsid_, fsid);
  EXPECT_EQ(0, dm_handle_to_igen(file.data(), 24, &gen));
  EXPECT_EQ(3u, gen);
  ASSERT_EQ(0, dm_handle_to_fshandle(file.data(), 24, &fsh, &fshlen));
  EXPECT_EQ(Hex(file.data(), 8), Hex(fsh, fshlen));
  dm_handle_free(fsh, fshlen);
  EXPECT_EQ("-1 EBADF", OUTCOME(dm_handle_to_ino(file.data(), 8, &ino)));
  EXPECT_EQ("-1 EBADF", OUTCOME(dm_handle_to_igen(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, &gen)));
  EXPECT_EQ("-1 EBADF", OUTCOME(dm_handle_to_fsid(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, &fsid)));
  EXPECT_EQ("-1 EBADF",
            OUTCOME(dm_handle_to_fshandle(DM_GLOBAL_HANP, DM_GLOBAL_HLEN, &fsh, &fshlen)));
}

TEST_F(HandlesTest, CompareOrdersByLengthThenUnsignedBytes) {
  Bytes a = FileHandle(fsid_, 0x7F, 0);
  Bytes b = FileHandle(fsid_, 0x80, 0);
  Bytes a_copy = a;
  Bytes one{0x01};
  EXPECT_EQ(16, dm_handle_cmp(a.data(), 24, a.data(), 8));
  EXPECT_EQ(-16, dm_handle_cmp(a.data(), 8, a.data(), 24));
  EXPECT_EQ(0, dm_handle_cmp(a.data(), 24, a_copy.data(), 24));
  EXPECT_EQ(-1, dm_handle_cmp(a.data(), 24, b.data(), 24));
  EXPECT_EQ(1, dm_handle_cmp(b.data(), 24, a.data(), 24));
  // The global marker has no bytes to read; comparing it must not crash.
  EXPECT_EQ(-1, dm_handle_cmp(DM_GLOBAL_HANP, 1, one.data(), 1));
}

TEST_F(HandlesTest, HashStrnlenAndLowerCaseHex) {
  Bytes ff(24, 0xFF);
  EXPECT_EQ(6120u, dm_handle_hash(ff.data(), ff.size()));
  EXPECT_EQ(0u, dm_handle_hash(DM_GLOBAL_HANP, DM_GLOBAL_HLEN));
  EXPECT_EQ(0u, dm_handle_hash(ff.data(), 0));
  EXPECT_EQ(2u, dm_strnlen("abc", 2));
  EXPECT_EQ(0u, dm_strnlen("abc", 0));
  const unsigned char bytes[] = {0x00, 0x9F, 0xA0, 0xFF};
  char lower[9];
  dm_binary_to_hex_lc(bytes, sizeof bytes, lower);
  EXPECT_STREQ("009fa0ff", lower);  // upper case: the wire-format case above
}

// Outside a kxfs mount there is no driver: the ioctl's errno is kept.
TEST_F(HandlesTest, FdToHandleOutsideKxfsKeepsTheIoctlErrno) {
  int fd = open("/", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  void *hanp = reinterpret_cast<void *>(0x10);
  size_t hlen = 0;
  EXPECT_EQ("-1 ENOTTY", OUTCOME(dm_fd_to_handle(fd, &hanp, &hlen)));
  EXPECT_EQ(nullptr, hanp);
  close(fd);
}

}  // namespace
