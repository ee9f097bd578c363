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

// Every field of an external-representation record in one line: pointers
// read "data" or "split" when they are the caller's buffers, and the key
// shows any byte after its terminator as "+junk".
std::string RepRecord(const std::vector<unsigned char> &b, const void *data = nullptr,
                      const void *split = nullptr) {
  auto ptr = [&](size_t off) -> std::string {
    const uint64_t v = At<uint64_t>(b, off);
    if (data != nullptr && v == reinterpret_cast<uintptr_t>(data)) return "data";
    if (split != nullptr && v == reinterpret_cast<uintptr_t>(split)) return "split";
    return std::to_string(v);
  };
  std::string key(reinterpret_cast<const char *>(b.data() + 24), 32);
  const size_t end = key.find('\0');
  const bool junk =
      end != std::string::npos && key.find_first_not_of('\0', end) != std::string::npos;
  key = key.substr(0, end) + (junk ? "+junk" : "");
  auto u32 = [&](size_t off) { return std::to_string(At<uint32_t>(b, off)); };
  auto u64 = [&](size_t off) { return std::to_string(At<uint64_t>(b, off)); };
  return "flags=" + u32(0) + " pad=" + u32(4) + " off=" + u64(8) + " len=" + u64(16) +
         " key=" + key + " field=" + u32(56) + " datalen=" + u32(60) + " at=" + u64(64) +
         " buf=" + ptr(72) + " op=" + u32(80) + " pad=" + u32(84) + " split=" + ptr(88);
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
  EXPECT_EQ(
      "flags=0 pad=0 off=1234605616436508552 len=0 key=OBJF field=0 datalen=0 at=0 buf=0 "
      "op=4 pad=0 split=0",
      RepRecord(c.bytes));
}

TEST_F(KxApiRecordTest, SetFillsEveryField) {
  char data[5] = "abcd";
  char split[3] = "xy";
  ASSERT_EQ(0, KxApi_SetExternalRep(3, 0xA1, 100, 200, 16, "BLOB", 5, data, 4, split));
  const Captured &c = Only();
  EXPECT_EQ(0xD31u, c.request);
  EXPECT_EQ(
      "flags=161 pad=0 off=100 len=200 key=BLOB field=5 datalen=5 at=16 buf=data op=4 "
      "pad=0 split=split",
      RepRecord(c.bytes, data, split));
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
  // Entry flags, field length, data offset, operation flags and the split
  // buffer are not the get's to fill.
  EXPECT_EQ(
      "flags=0 pad=0 off=5 len=6 key=REPL field=0 datalen=64 at=0 buf=data op=0 pad=0 "
      "split=0",
      RepRecord(c.bytes, buf));
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
