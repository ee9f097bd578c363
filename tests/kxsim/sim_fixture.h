// Fixture of the simulator's tests: a simulated file system with a known
// fsid, and hand-built driver requests. Payloads are filled by byte offset
// on purpose: these tests are the wire format's other half.
#pragma once

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "support/sim_fs.h"

namespace kxsim_test {

using Buf = std::vector<unsigned char>;
using vdtest::CmdResult;
using vdtest::ReadFile;

template <typename T>
T get(const Buf &b, std::size_t off) {
  T v;
  std::memcpy(&v, b.data() + off, sizeof v);
  return v;
}
template <typename T>
void put(Buf &b, std::size_t off, T v) {
  std::memcpy(b.data() + off, &v, sizeof v);
}
inline std::string hex(const unsigned char *p, std::size_t n, bool upper = false) {
  const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += digits[p[i] >> 4];
    s += digits[p[i] & 15];
  }
  return s;
}
inline std::string errno_text(int e) {
  return "!" + std::to_string(e);
}

// dm_get_dmattr_t / dm_set_dmattr_t by offset: buflen 12, value length 14,
// name 24, value 32.
inline Buf attr_req(const char *name, const Buf &value = {}, std::uint32_t buflen = 128) {
  Buf b(160, 0);
  put<std::uint32_t>(b, 12, buflen);
  put<std::uint16_t>(b, 14, static_cast<std::uint16_t>(value.size()));
  std::memcpy(b.data() + 24, name, std::strlen(name));
  std::copy_n(value.begin(), std::min<std::size_t>(value.size(), 128), b.begin() + 32);
  return b;
}

// Runs a request on a descriptor of path: 0, the request's errno, or -1
// when path does not open.
inline int file_ioctl(const std::string &path, unsigned long req, Buf &b) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) return -1;
  int err = ioctl(fd, req, b.data()) == 0 ? 0 : errno;
  close(fd);
  return err;
}

// The errno of opening path, 0 when it opened (and was closed again).
inline int open_errno(const std::string &path, int flags = O_RDONLY) {
  int fd = open(path.c_str(), flags);
  if (fd < 0) return errno;
  close(fd);
  return 0;
}

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ("", fs.error()); }
  void TearDown() override { close_ctl(); }

  std::string path(const std::string &rel) const { return fs.Path(rel); }
  // `kxsim <args...>`, which must succeed.
  void sim(const std::vector<std::string> &args) {
    CmdResult r = fs.Kxsim(args);
    ASSERT_EQ(0, r.exit_code) << r.err;
  }
  // `kxsim` with the blank-separated words of `args`.
  CmdResult kxsim(const std::string &args) const {
    std::vector<std::string> argv;
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
    return fs.Kxsim(argv);
  }

  int ctl() {
    if (ctl_ < 0) ctl_ = open("/dev/kxfsctl0", O_RDWR | O_CLOEXEC);
    return ctl_;
  }
  void close_ctl() {
    if (ctl_ >= 0) close(ctl_);
    ctl_ = -1;
  }

  // One Dmig frame (func 0, version 4, error 6, bufsize 8, buf 16) on the
  // channel or on `fd`: 0, or the request's errno.
  int dmig(std::int32_t func, Buf &payload, std::int16_t version = 6, int fd = -1) {
    Buf frame(24, 0);
    put<std::int32_t>(frame, 0, func);
    put<std::int16_t>(frame, 4, version);
    put<std::uint32_t>(frame, 8, static_cast<std::uint32_t>(payload.size()));
    put<std::uint64_t>(frame, 16, reinterpret_cast<std::uintptr_t>(payload.data()));
    return ioctl(fd < 0 ? ctl() : fd, 0xc018e571, frame.data()) == 0 ? 0 : errno;
  }

  // Request 7; the handle's bytes, or empty with errno set.
  Buf path_to_handle(const std::string &p, std::uint32_t flags = 1) {
    Buf b(1112, 0);
    put<std::uint32_t>(b, 76, flags);
    put<std::uint32_t>(b, 80, static_cast<std::uint32_t>(p.size()));
    std::memcpy(b.data() + 84, p.c_str(), p.size() + 1);
    if (dmig(7, b) != 0) return {};
    return Buf(b.begin(), b.begin() + (b[8] << 8 | b[9]) + 10);
  }
  // Request 7's errno, 0 when it succeeded.
  int resolve_errno(const std::string &p, std::uint32_t flags = 1) {
    errno = 0;
    return path_to_handle(p, flags).empty() ? errno : 0;
  }

  // Request 0x419 on the mount point: the relative path, or "!<errno>".
  std::string handle_to_path(const Buf &h) {
    Buf b(1168, 0);
    std::memcpy(b.data() + 72, h.data(), h.size());
    put<std::uint64_t>(b, 136, h.size());
    if (int err = file_ioctl(fs.mnt(), 0x419, b)) return errno_text(err);
    return reinterpret_cast<const char *>(b.data() + 144);
  }

  std::string special_path(const Buf &h) const {
    return fs.mnt() + "/__KXFS_Handle." + hex(h.data(), h.size(), true);
  }

  vdtest::SimFs fs{"00000000c0ffee01"};
  int ctl_ = -1;
};

}  // namespace kxsim_test
