// Test support: a private simulated kxfs file system per test case.
//
// SimFs makes a temporary directory holding a private simulator registry
// (KXSIM_CONFIG) and a mount "<root>/mnt" registered with `kxsim mkfs`, and
// points this process at it with setenv, so that the preloaded simulator
// serves it to the test and to every program the test runs. On destruction
// everything is removed and the KXSIM_* variables are as they were before,
// so a second SimFs inside a test hands the first one back. CTest runs each
// case in its own process, so the library's process-wide state is per case.
//
// SimFsTest is the matching GoogleTest fixture (member `fs`).
#pragma once

#include <sys/types.h>

#include <gtest/gtest.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/process.h"
#include "support/test_support.h"

namespace vdtest {

class SimFs {
 public:
  // `fsid_hex` fixes the file system's id, for tests of the handles' bytes.
  explicit SimFs(const std::string &fsid_hex = "");
  ~SimFs();
  SimFs(const SimFs &) = delete;
  SimFs &operator=(const SimFs &) = delete;

  // Empty when the file system is ready, else what went wrong.
  const std::string &error() const { return error_; }
  const std::string &root() const { return root_; }
  const std::string &mnt() const { return mnt_; }
  const std::string &config() const { return config_; }
  std::string Path(const std::string &rel) const { return rel.empty() ? mnt_ : mnt_ + "/" + rel; }

  // `kxsim <args...>` on this registry, with this process's other settings.
  CmdResult Kxsim(const std::vector<std::string> &args) const;
  // `kxsim attr|events|rep|show ...`: standard output without trailing
  // blanks, or "ERROR: <stderr>" when the command failed.
  std::string Query(const std::vector<std::string> &args) const;
  // Registers another simulated mount at <root>/<name>; its path, or "".
  std::string Mkfs(const std::string &name, const std::string &fsid_hex = "") const;

  // Objects below the mount point; missing parent directories are made.
  // An allocated file that ends up without blocks fails the test: the
  // simulated data would be judged restored for the wrong reason.
  bool MakeDir(const std::string &rel) const;
  // A file of `size` bytes: written (allocated) or only truncated (no blocks).
  bool MakeFile(const std::string &rel, off_t size, bool allocated = true) const;
  bool WriteFile(const std::string &rel, const std::string &text) const;
  bool Exists(const std::string &rel) const;  // as lstat sees it

  // Changes the config file's mtime, which the driver reports as the time
  // of the last mount-table change.
  bool TouchConfig(int seconds_later = 1) const;

  void SetFaults(const std::string &rules) const { setenv("KXSIM_FAULTS", rules.c_str(), 1); }
  void ClearFaults() const { unsetenv("KXSIM_FAULTS"); }

  // The request log: StartLog() starts a fresh one for this process (and
  // what it runs) and returns LogPath().
  std::string LogPath() const { return root_ + "/requests.log"; }
  std::string StartLog() const;
  std::vector<std::string> LogLines() const { return SplitLines(ReadFile(LogPath())); }
  // Log lines whose text contains every one of `parts`.
  std::vector<std::string> LogLinesWith(std::initializer_list<std::string> parts) const;

 private:
  std::string root_, mnt_, config_, error_;
  std::vector<std::pair<std::string, std::optional<std::string>>> saved_env_;
};

class SimFsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ("", fs.error()); }
  SimFs fs;
};

}  // namespace vdtest
