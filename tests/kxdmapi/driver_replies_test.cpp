// Driver replies that made the library hand back what it must not, kept as
// fuzz_driver_replies found them and replayed through its fake driver (which
// takes the C library's ioctl, open and mount-table calls in this executable,
// so no simulator runs here). The harness traps when a check fails; each
// input runs in a child. The input format is described in
// fuzz/driver_replies_fuzz.cpp.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/test_support.h"

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

template <size_t N>
std::string Bytes(const char (&literal)[N]) {
  return std::string(literal, N - 1);
}

::testing::AssertionResult Replays(const std::string &input) {
  const vdtest::ChildResult child = vdtest::RunInChild([&] {
    LLVMFuzzerInitialize(nullptr, nullptr);
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.data()), input.size());
  });
  if (child.exited_with(0)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "a check failed (wait status " << child.status << ")\n"
                                       << child.err;
}

TEST(DriverRepliesTest, KeptFindingsPassEveryCheck) {
  const struct {
    const char *what;
    std::string input;
  } findings[] = {
      // dm_fd_to_handle, and an ioctl that returns 1: the call failed with
      // errno left at 0.
      {"positive ioctl result on a descriptor", Bytes("\x00\x01\x66")},
      // dm_path_to_handle, and a request on the control device that returns 1.
      {"positive driver result", Bytes("\x00\x00\x00\x66")},
      // dm_get_dmattr_fd with a 255-byte buffer, and a file system that leaves
      // the payload as it was: the caller's length came back as the value's
      // length, 255 bytes where no value has more than 128.
      {"attribute length beyond the largest value", Bytes("\x44\x12\xff\xff")},
      // dm_getall_disp with a 65,535-byte buffer, and a reply of 0xFF bytes: a
      // success that claimed 4 GiB written into it.
      {"reply longer than the caller's buffer", Bytes("\x00\x0d\xff\xff\xff\x44\xff")},
      // A 1,024-character mount point and a handle-to-path reply filled with
      // 0x02: a 1,024-byte path without a terminator. The library cut it to
      // 1,023 bytes, which names another file.
      {"handle-to-path reply that fills its field",
       Bytes("\x05\x05\x01\x2f\xf8\x03\x00\x08\x00\x02\x88\x77\x66\x55\x44\x33"
             "\x22\x11\x05\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x10\x00\x10"
             "\x00\x05\x00\x00\x00\x00\x00\x05\x00\x08\x00\x88\x77\x66\x55\x44"
             "\x33\x22\x11\x2f\x64\x02")},
  };
  for (const auto &finding : findings) EXPECT_TRUE(Replays(finding.input)) << finding.what;
}

}  // namespace
