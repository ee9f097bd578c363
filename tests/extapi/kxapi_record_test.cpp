// The records the external-representation calls send. This executable
// defines its own ioctl, which the library's calls bind to: requests of the
// family are captured byte for byte (and answered as a test chooses), every
// other request goes on to the C library. That the simulated file system
// understands these records is shown end to end by the tool's tests.
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "extapi/kxapi.h"

namespace {

struct Captured {
  unsigned long request = 0;
  int fd = -1;
  std::vector<unsigned char> bytes;
};

std::vector<Captured> g_requests;
int g_fail_with = 0;                // errno to fail with; 0 succeeds, -1 fails leaving errno 0
void (*g_reply)(void *) = nullptr;  // fills a reply before success

bool InFamily(unsigned long request) {
  return request >= KXAPI_SET_EXTERNAL_REP && request <= KXAPI_BULK_LINK;
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  if (!InFamily(request)) {
    using IoctlFn = int (*)(int, unsigned long, ...);
    static IoctlFn next = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, request, arg);
  }
  // Only the external-representation records are kept for inspection.
  const auto *p = static_cast<const unsigned char *>(arg);
  const size_t size = request <= KXAPI_REMOVE_EXTERNAL_REP ? sizeof(ExternalRepSet_t) : 0;
  g_requests.push_back({request, fd, std::vector<unsigned char>(p, p + size)});
  if (g_fail_with != 0) {
    errno = g_fail_with > 0 ? g_fail_with : 0;
    return -1;
  }
  if (g_reply != nullptr) g_reply(arg);
  return 0;
}

namespace {

// A captured external-representation request as "0xd33 fd7: off=5 key=OBJF":
// the request number, the descriptor and the record's non-zero fields, so a
// field that a call must leave zero shows up as an extra word. The caller's
// buffers read "data" and "split", bytes after the key's terminator "+junk".
std::string Describe(const Captured &c, const void *data = nullptr, const void *split = nullptr) {
  ExternalRepSet_t r;
  memcpy(&r, c.bytes.data(), sizeof r);
  std::ostringstream out;
  out << std::hex << "0x" << c.request << std::dec << " fd" << c.fd << ":";
  auto num = [&](const char *name, uint64_t v) {
    if (v != 0) out << ' ' << name << '=' << v;
  };
  auto ptr = [&](const char *name, uint64_t v) {
    if (v == reinterpret_cast<uintptr_t>(data) && v != 0)
      out << ' ' << name << "=data";
    else if (v == reinterpret_cast<uintptr_t>(split) && v != 0)
      out << ' ' << name << "=split";
    else
      num(name, v);
  };
  num("flags", r.ext_entry_flags);
  num("pad1", r.ext_pad1);
  num("off", r.ext_offset);
  num("len", r.ext_length);
  const std::string key(r.ext_keyname, sizeof r.ext_keyname);
  const size_t key_len = key.find('\0');
  out << " key=" << key.substr(0, key_len);
  if (key_len != std::string::npos && key.find_first_not_of('\0', key_len) != std::string::npos)
    out << "+junk";
  num("field", r.ext_fieldlen);
  num("datalen", r.ext_datalen);
  num("at", r.ext_dataoffset);
  ptr("buf", r.ext_data);
  num("op", r.ext_op_flags);
  num("pad2", r.ext_pad2);
  ptr("split", r.ext_split_data);
  return out.str();
}

class KxApiRecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_requests.clear();
    g_fail_with = 0;
    g_reply = nullptr;
  }
  const Captured &Only() {
    EXPECT_EQ(1u, g_requests.size());
    static Captured none;
    return g_requests.empty() ? none : g_requests.back();
  }
};

TEST_F(KxApiRecordTest, SetAndRemoveFillTheirFieldsOnly) {
  char data[5] = "abcd";
  char split[3] = "xy";
  ASSERT_EQ(0, KxApi_SetExternalRep(3, 0xA1, 100, 200, 16, "BLOB", 5, data, 4, split));
  ASSERT_EQ(0, KxApi_RemoveExternalRep(7, 0x1122334455667788ULL, 4, "OBJF"));
  ASSERT_EQ(2u, g_requests.size());
  EXPECT_EQ(
      "0xd31 fd3: flags=161 off=100 len=200 key=BLOB field=5 datalen=5 at=16 buf=data op=4 "
      "split=split",
      Describe(g_requests[0], data, split));
  EXPECT_EQ("0xd33 fd7: off=1234605616436508552 key=OBJF op=4", Describe(g_requests[1]));
}

TEST_F(KxApiRecordTest, GetSendsTheBufferAndReturnsTheReply) {
  g_reply = [](void *arg) {
    auto *rec = static_cast<ExternalRepSet_t *>(arg);
    rec->ext_fieldlen = 300;
    rec->ext_datalen = 64;
  };
  unsigned char buf[64];
  uint32_t fieldlen = 0, buflen = sizeof buf;
  ASSERT_EQ(0, KxApi_GetExternalRep(9, 5, 6, "REPL", &fieldlen, &buflen, buf));
  EXPECT_EQ(300u, fieldlen);
  EXPECT_EQ(64u, buflen);
  // Entry flags, field length, data offset, operation flags and the split
  // buffer are not the get's to fill.
  EXPECT_EQ("0xd32 fd9: off=5 len=6 key=REPL datalen=64 buf=data", Describe(Only(), buf));
}

TEST_F(KxApiRecordTest, FailedRequestYieldsItsErrnoAndTouchesNoOutput) {
  g_fail_with = ENOSPC;
  uint32_t fieldlen = 11, buflen = 22;
  EXPECT_EQ(ENOSPC, KxApi_GetExternalRep(9, 0, 0, "BLOB", &fieldlen, &buflen, nullptr));
  EXPECT_EQ(11u, fieldlen);
  EXPECT_EQ(22u, buflen);
  EXPECT_EQ(ENOSPC, KxApi_SetFenceposts(9, 1, 2));
  EXPECT_EQ(ENOSPC, KxApi_SetIngestParam(9, 1, 2, 3));
  g_fail_with = -1;  // a failure without an errno must not read as success
  EXPECT_EQ(EIO, KxApi_RemoveExternalRep(9, 0, 0, "BLOB"));
}

TEST_F(KxApiRecordTest, BadArgumentsAreRefusedBeforeAnyRequest) {
  const std::string key31(31, 'K'), key32(32, 'K');
  uint32_t len = 0;
  EXPECT_EQ(ENAMETOOLONG, KxApi_RemoveExternalRep(3, 0, 0, key32.c_str()));
  EXPECT_EQ(EINVAL, KxApi_RemoveExternalRep(3, 0, 0, nullptr));
  EXPECT_EQ(EINVAL, KxApi_GetExternalRep(3, 0, 0, "BLOB", nullptr, &len, nullptr));
  EXPECT_EQ(EINVAL, KxApi_GetExternalRep(3, 0, 0, "BLOB", &len, nullptr, nullptr));
  EXPECT_EQ(EINVAL, KxApi_BulkLink(3, nullptr));
  EXPECT_TRUE(g_requests.empty());
  EXPECT_EQ(0, KxApi_RemoveExternalRep(3, 0, 0, key31.c_str()));
  EXPECT_EQ("0xd33 fd3: key=" + key31, Describe(Only()));
}

}  // namespace
