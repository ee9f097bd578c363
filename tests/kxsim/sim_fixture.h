// Fixture of the simulator's tests: a fresh simulated file system in a
// temporary directory, and hand-built driver requests. Payloads are filled
// by byte offset on purpose: these tests are the wire format's other half.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kxsim_test {

using Buf = std::vector<unsigned char>;

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
inline std::uint64_t get_be64(const Buf &b, std::size_t off) {
  std::uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | b[off + static_cast<std::size_t>(i)];
  return v;
}
inline std::string hex(const unsigned char *p, std::size_t n, bool upper = false) {
  static const char *lo = "0123456789abcdef", *up = "0123456789ABCDEF";
  const char *d = upper ? up : lo;
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

inline std::string read_text(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct CmdResult {
  int status;
  std::string out;
};

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/kxsim_test.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    root_ = tmpl;
    config_ = root_ + "/kxsim.conf";
    mnt_ = root_ + "/mnt";
    setenv("KXSIM_CONFIG", config_.c_str(), 1);
    // A per-user default configuration on this machine must not bring a
    // driver into the cases that unset KXSIM_CONFIG.
    setenv("XDG_STATE_HOME", (root_ + "/no-state").c_str(), 1);
    unsetenv("KXSIM_FAULTS");
    unsetenv("KXSIM_FAULTS_FILE");
    unsetenv("KXSIM_LOG");
    unsetenv("KXSIM_TRACE");
    ASSERT_EQ(0, cli("mkfs " + mnt_ + " --fsid 00000000c0ffee01").status);
  }
  void TearDown() override {
    close_ctl();
    unsetenv("KXSIM_FAULTS");
    unsetenv("KXSIM_LOG");
    unsetenv("KXSIM_CONFIG");
    std::string cmd = "rm -rf '" + root_ + "'";
    ASSERT_EQ(0, std::system(cmd.c_str()));
  }

  // Runs the kxsim tool; standard output and error together.
  CmdResult cli(const std::string &args) { return sh(std::string(KXSIM_CLI) + " " + args); }

  // Runs a shell command line; standard output and error together.
  CmdResult sh(const std::string &command) {
    std::string cmd = command + " 2>&1";
    CmdResult r{-1, {}};
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return r;
    char buf[512];
    while (std::fgets(buf, sizeof buf, p)) r.out += buf;
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
  }

  std::string path(const std::string &rel) const { return rel.empty() ? mnt_ : mnt_ + "/" + rel; }
  void make_dir(const std::string &rel) { ASSERT_EQ(0, mkdir(path(rel).c_str(), 0755)); }
  void make_file(const std::string &rel, const std::string &data = "data") {
    std::ofstream(path(rel)) << data;
  }

  int ctl() {
    if (ctl_ < 0) ctl_ = open("/dev/kxfsctl0", O_RDWR | O_CLOEXEC);
    return ctl_;
  }
  void close_ctl() {
    if (ctl_ >= 0) close(ctl_);
    ctl_ = -1;
  }

  // One Dmig frame: func 0, version 4, error 6, bufsize 8, buf 16.
  int dmig(std::int32_t func, Buf &payload, std::int16_t version = 6) {
    Buf frame(24, 0);
    put<std::int32_t>(frame, 0, func);
    put<std::int16_t>(frame, 4, version);
    put<std::uint32_t>(frame, 8, static_cast<std::uint32_t>(payload.size()));
    put<std::uint64_t>(frame, 16, reinterpret_cast<std::uintptr_t>(payload.data()));
    return ioctl(ctl(), 0xc018e571, frame.data());
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

  // Request 0x419 on the mount point: the relative path, or "!<errno>".
  std::string handle_to_path(const Buf &h) {
    Buf b(1168, 0);
    std::memcpy(b.data() + 72, h.data(), h.size());
    put<std::uint64_t>(b, 136, h.size());
    int fd = open(mnt_.c_str(), O_RDONLY);
    int r = ioctl(fd, 0x419, b.data());
    int e = errno;
    close(fd);
    if (r != 0) return "!" + std::to_string(e);
    return reinterpret_cast<const char *>(b.data() + 144);
  }

  std::string special_path(const Buf &h) const {
    return mnt_ + "/__KXFS_Handle." + hex(h.data(), h.size(), true);
  }

  std::string root_, config_, mnt_;
  int ctl_ = -1;
};

// Runs a request on a descriptor of path; the ioctl result, errno in err.
inline int file_ioctl(const std::string &path, unsigned long req, Buf &b, int *err = nullptr) {
  int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd < 0) return -100;
  int r = ioctl(fd, req, b.data());
  if (err) *err = r < 0 ? errno : 0;
  close(fd);
  return r;
}

}  // namespace kxsim_test
