// The exact records the external-representation calls send. This executable
// defines its own ioctl, which the library's calls bind to: requests of the
// family are captured byte for byte (and answered as a test chooses), every
// other request goes on to the C library.
#include <dlfcn.h>
#include <errno.h>
#include <stdarg.h>
#include <string.h>

#include <cstdint>
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

size_t RecordSize(unsigned long request) {
  switch (request) {
    case KXAPI_SET_EXTERNAL_REP:
    case KXAPI_GET_EXTERNAL_REP:
    case KXAPI_REMOVE_EXTERNAL_REP:
      return sizeof(ExternalRepSet_t);
    case KXAPI_SET_INGEST_PARAM:
      return sizeof(IngestParamSet_t);
    case KXAPI_SET_FENCEPOSTS:
      return sizeof(FencePostParamSet_t);
    case KXAPI_BULK_LINK:
      return sizeof(_BulkLink);
    default:
      return 0;
  }
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  const size_t size = RecordSize(request);
  if (size == 0) {
    using IoctlFn = int (*)(int, unsigned long, ...);
    static IoctlFn next = reinterpret_cast<IoctlFn>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, request, arg);
  }
  const auto *p = static_cast<const unsigned char *>(arg);
  g_requests.push_back({request, fd, std::vector<unsigned char>(p, p + size)});
  if (g_fail_with != 0) {
    errno = g_fail_with > 0 ? g_fail_with : 0;
    return -1;
  }
  if (g_reply != nullptr) g_reply(arg);
  return 0;
}

namespace {

template <typename T>
T At(const std::vector<unsigned char> &b, size_t offset) {
  T v;
  memcpy(&v, b.data() + offset, sizeof v);
  return v;
}

bool AllZeroExcept(const std::vector<unsigned char> &b,
                   std::initializer_list<std::pair<size_t, size_t>> ranges) {
  for (size_t i = 0; i < b.size(); ++i) {
    bool named = false;
    for (auto [off, len] : ranges) named = named || (i >= off && i < off + len);
    if (!named && b[i] != 0) return false;
  }
  return true;
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

TEST_F(KxApiRecordTest, RemoveSendsOffsetFlagsAndKeyOnly) {
  ASSERT_EQ(0, KxApi_RemoveExternalRep(7, 0x1122334455667788ULL, 4, "OBJF"));
  const Captured &c = Only();
  EXPECT_EQ(0xD33u, c.request);
  EXPECT_EQ(7, c.fd);
  EXPECT_EQ(0x1122334455667788ULL, At<uint64_t>(c.bytes, 8));
  EXPECT_EQ(4u, At<uint32_t>(c.bytes, 80));
  EXPECT_STREQ("OBJF", reinterpret_cast<const char *>(c.bytes.data() + 24));
  EXPECT_TRUE(AllZeroExcept(c.bytes, {{8, 8}, {24, 4}, {80, 4}}));
}

TEST_F(KxApiRecordTest, SetFillsEveryField) {
  char data[5] = "abcd";
  char split[3] = "xy";
  ASSERT_EQ(0, KxApi_SetExternalRep(3, 0xA1, 100, 200, 16, "BLOB", 5, data, 4, split));
  const Captured &c = Only();
  EXPECT_EQ(0xD31u, c.request);
  EXPECT_EQ(0xA1u, At<uint32_t>(c.bytes, 0));
  EXPECT_EQ(100u, At<uint64_t>(c.bytes, 8));
  EXPECT_EQ(200u, At<uint64_t>(c.bytes, 16));
  EXPECT_STREQ("BLOB", reinterpret_cast<const char *>(c.bytes.data() + 24));
  EXPECT_EQ(5u, At<uint32_t>(c.bytes, 56));
  EXPECT_EQ(5u, At<uint32_t>(c.bytes, 60));
  EXPECT_EQ(16u, At<uint64_t>(c.bytes, 64));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(data), At<uint64_t>(c.bytes, 72));
  EXPECT_EQ(4u, At<uint32_t>(c.bytes, 80));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(split), At<uint64_t>(c.bytes, 88));
  EXPECT_EQ(0u, At<uint32_t>(c.bytes, 4));  // padding
  EXPECT_EQ(0u, At<uint32_t>(c.bytes, 84));
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
  const Captured &c = Only();
  EXPECT_EQ(0xD32u, c.request);
  EXPECT_EQ(5u, At<uint64_t>(c.bytes, 8));
  EXPECT_EQ(6u, At<uint64_t>(c.bytes, 16));
  EXPECT_EQ(64u, At<uint32_t>(c.bytes, 60));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(buf), At<uint64_t>(c.bytes, 72));
  // Entry flags, field length, data offset, operation flags and the split
  // buffer are not the get's to fill.
  EXPECT_TRUE(AllZeroExcept(c.bytes, {{8, 8}, {16, 8}, {24, 4}, {60, 4}, {72, 8}}));
}

TEST_F(KxApiRecordTest, FailedRequestYieldsItsErrnoAndTouchesNoOutput) {
  g_fail_with = ENOSPC;
  uint32_t fieldlen = 11, buflen = 22;
  EXPECT_EQ(ENOSPC, KxApi_GetExternalRep(9, 0, 0, "BLOB", &fieldlen, &buflen, nullptr));
  EXPECT_EQ(11u, fieldlen);
  EXPECT_EQ(22u, buflen);
  EXPECT_EQ(ENOSPC, KxApi_SetFenceposts(9, 1, 2));
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
  EXPECT_EQ(key31, reinterpret_cast<const char *>(Only().bytes.data() + 24));
}

}  // namespace
