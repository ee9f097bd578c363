// What the DMAPI client library's tests share: hand-built handles, descriptor
// checks and a simulated mount holding one file with its handle.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kxdmapi/kxdmapi.h"
#include "support/owned_handle.h"
#include "support/sim_fs.h"
#include "support/test_support.h"

namespace dmtest {

using Bytes = std::vector<unsigned char>;

// A file handle of any length: fsid (host order), fid length (big-endian),
// zero pad, generation and inode (both big-endian).
inline Bytes FileHandle(uint64_t fsid, uint64_t ino, uint32_t gen = 1, size_t len = 24) {
  Bytes h(len < 24 ? 24 : len, 0);
  std::memcpy(h.data(), &fsid, 8);
  h[8] = static_cast<unsigned char>((len - 10) >> 8);
  h[9] = static_cast<unsigned char>(len - 10);
  for (int i = 0; i < 4; ++i) h[12 + i] = static_cast<unsigned char>(gen >> (24 - 8 * i));
  for (int i = 0; i < 8; ++i) h[16 + i] = static_cast<unsigned char>(ino >> (56 - 8 * i));
  h.resize(len);
  return h;
}

inline bool IsOpen(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

inline size_t OpenDescriptorCount() {
  size_t n = 0;
  for (int fd = 0; fd < 1024; ++fd) n += IsOpen(fd);
  return n;
}

// A simulated mount with the file "f" and its handle.
class SimFileTest : public vdtest::SimFsTest {
 protected:
  void SetUp() override {
    SimFsTest::SetUp();
    path_ = fs.Path("f");
    ASSERT_TRUE(fs.MakeFile("f", 4096));
    ASSERT_EQ("", file_.Resolve(path_));
  }
  const void *h() const { return file_.hanp; }
  size_t hlen() const { return file_.hlen; }

  std::string path_;
  vdtest::OwnedHandle file_;
};

}  // namespace dmtest
