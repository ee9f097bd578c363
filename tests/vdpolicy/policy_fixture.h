// Fixtures of the policy library's tests; helpers return "OK" or the
// caller's message, so that a failure prints a readable difference.
//
// PolicyTest: a fresh configuration record to parse into, the RAS events
// and log lines a case raises, and no allocation failure left armed.
// PolicyStoreTest adds a simulated managed file system with an empty policy
// directory and a policy handle on its mount point.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "libutil/kxras.h"
#include "support/log_capture.h"
#include "support/sim_fs.h"
#include "vdpolicy/lib/config/policy.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/store/policy_inherit.h"
#include "vdpolicy/lib/store/policy_store.h"
#include "vdpolicy/vd_pol_api.h"

namespace vdtest {

struct VdpDeleter {
  void operator()(Vdp_t *r) const { vdp_free(&r); }
};
using OwnedVdp = std::unique_ptr<Vdp_t, VdpDeleter>;

class PolicyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_policy_config(&cfg_);
    Events().clear();
    RasFn = &Capture;
  }
  void TearDown() override {
    RasFn = nullptr;
    vdpol::alloc_failure_countdown = -1;
    free_policy_config_contents(&cfg_);
  }

  void Reset() {
    free_policy_config_contents(&cfg_);
    init_policy_config(&cfg_);
  }

  // Parses text (a copy: the parser writes into it) into cfg_.
  std::string Parse(std::string text, int do_inherit = 0) {
    char err[1024] = "";
    const char *chain[VDP_MAX_INHERIT_DEPTH + 1] = {};
    int rc = parse_policy_string(7, &cfg_, text.data(), text.size(), do_inherit, 0, chain, err,
                                 sizeof err);
    if (rc == 0) return err[0] == '\0' ? "OK" : std::string("OK with message: ") + err;
    EXPECT_EQ(-1, rc);
    return err[0] != '\0' ? err : "<no message>";
  }

  // A keyed policy, as when its file is looked up by key.
  std::string ParseKeyed(std::string text, uint64_t key = 5) {
    cfg_.polcfg_key = key;
    return Parse(std::move(text));
  }

  // RAS events raised so far, as "<name>|<text>".
  static std::vector<std::string> &Events() {
    static std::vector<std::string> events;
    return events;
  }

  PolicyConfig_t cfg_{};
  LogCapture log;

 private:
  static int Capture(const char *name, const char *text, uint32_t, uint32_t) {
    Events().push_back(std::string(name) + "|" + text);
    return 0;
  }
};

class PolicyStoreTest : public PolicyTest {
 protected:
  void SetUp() override {
    PolicyTest::SetUp();
    ASSERT_EQ("", fs.error());
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
    PolicyTest::TearDown();
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

  SimFs fs;
  std::string dir_;
  vdpol_hndl_s *handle_ = nullptr;
  OwnedVdp record;

 private:
  static void CountParses(int, const char *format, ...) {
    if (std::string(format).rfind("parse_policy_file(", 0) == 0) ++Parses();
  }
  kxfs_logfn_t saved_debugfn_ = nullptr;
};

}  // namespace vdtest
