// Shared fixture of the policy store and API tests: a simulated managed file
// system with an empty policy directory, a policy handle on its mount point,
// and helpers that return "OK" or the caller's message.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <memory>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/sim_fs.h"
#include "vdpolicy/lib/policy_store.h"
#include "vdpolicy/lib/vd_pol_api.h"

namespace vdtest {

struct VdpDeleter {
  void operator()(Vdp_t *r) const { vdp_free(&r); }
};
using OwnedVdp = std::unique_ptr<Vdp_t, VdpDeleter>;

class PolicyStoreTest : public SimFsTest {
 protected:
  void SetUp() override {
    SimFsTest::SetUp();
    dir_ = fs.Path(".rep_private/config");
    ASSERT_EQ(0, mkdir(fs.Path(".rep_private").c_str(), 0755));
    ASSERT_EQ(0, mkdir(dir_.c_str(), 0755));
    char err[512] = "";
    ASSERT_EQ(0, vdpol_open(fs.mnt().c_str(), &handle_, err, sizeof err)) << err;
    Parses() = 0;
    saved_debugfn_ = __kxfs_debugfn;
    __kxfs_debugfn = CountParses;
    facilities[9] = 0x10;
  }
  void TearDown() override {
    facilities[9] = 0;
    __kxfs_debugfn = saved_debugfn_;
    vdpol_close(&handle_);
    free_policy_caches();
  }

  // A policy file with its data written (allocated blocks).
  void Write(const std::string &file, const std::string &text) const {
    ASSERT_TRUE(WriteFileAt(dir_ + "/" + file, text));
  }
  static bool WriteFileAt(const std::string &path, const std::string &text) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    return close(fd) == 0 && ok;
  }

  // The directory's clock ticks coarsely: a change right after another may
  // keep its time, so tests that need one to show move it on.
  void BumpDirTime() const {
    struct stat st {};
    ASSERT_EQ(0, stat(dir_.c_str(), &st));
    struct timespec times[2] = {{0, UTIME_OMIT}, st.st_mtim};
    ++times[1].tv_sec;
    ASSERT_EQ(0, utimensat(AT_FDCWD, dir_.c_str(), times, 0));
  }

  // vdpol_load into record: "OK", or "<rc>: <message>".
  std::string Load(vdp_key_t key, const char *name = nullptr) {
    char err[1024] = "";
    Vdp_t *r = nullptr;
    int rc = vdpol_load(handle_, name, key, &r, err, sizeof err);
    record.reset(r);
    if (rc == 0) return "OK";
    EXPECT_EQ(nullptr, r);
    return std::to_string(rc) + ": " + err;
  }

  // The reason lookup_policy logged for the last failure ("" if none).
  static std::string LastError() {
    for (auto it = LogCapture::Lines().rbegin(); it != LogCapture::Lines().rend(); ++it)
      if (it->rfind("3:vdpol_load", 0) != 0 && it->rfind("3:", 0) == 0) return it->substr(2);
    return "";
  }

  // Files parsed so far (traced by parse_policy_file).
  static int &Parses() {
    static int parses = 0;
    return parses;
  }

  dm_fsid_t fsid() const { return handle_->VdpDmFsId; }

  std::string dir_;
  vdpol_hndl_s *handle_ = nullptr;
  OwnedVdp record;
  LogCapture log;

 private:
  static void CountParses(int, const char *format, ...) {
    if (std::string(format).rfind("parse_policy_file(", 0) == 0) ++Parses();
  }
  kxfs_logfn_t saved_debugfn_ = nullptr;
};

}  // namespace vdtest
