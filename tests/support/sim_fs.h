// Test support: a private simulated kxfs file system per test case.
//
// SimFs makes a temporary directory holding a private simulator registry
// (KXSIM_CONFIG) and a mount "<root>/mnt" registered with `kxsim mkfs`, and
// points this process at it with setenv, so the preloaded simulator serves
// it. Everything is removed and the KXSIM_* variables are unset on
// destruction. CTest runs each case in its own process, so the environment
// and the library's process-wide state are per case.
//
// SimFsTest is the matching GoogleTest fixture (member `fs`).
// Needs KXSIM_CLI (defined by vd_add_sim_gtest).
#pragma once

#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/test_support.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <sstream>
#include <string>
#include <vector>

extern char **environ;

namespace vdtest {

struct CmdResult {
  int exit_code = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;
};

// Runs argv[0] (a path) with this process's environment, capturing both
// output streams.
inline CmdResult RunCommand(const std::vector<std::string> &args) {
  CmdResult result;
  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) return result;
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    return result;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);
  std::vector<char *> argv;
  for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out_pipe[1]);
  close(err_pipe[1]);
  // Drain both pipes together so a chatty child cannot block on either.
  struct pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string *sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  while (rc == 0 && open_count > 0) {
    if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  close(out_pipe[0]);
  close(err_pipe[0]);
  if (rc != 0) return result;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  return result;
}

class SimFs {
 public:
  SimFs() {
    root_ = MakeTempDir("kxsim-test");
    if (root_.empty()) {
      error_ = std::string("mkdtemp: ") + strerror(errno);
      return;
    }
    config_ = root_ + "/kxsim.conf";
    setenv("KXSIM_CONFIG", config_.c_str(), 1);
    unsetenv("KXSIM_FAULTS");
    unsetenv("KXSIM_LOG");
    mnt_ = root_ + "/mnt";
    CmdResult made = Kxsim({"mkfs", mnt_});
    if (made.exit_code != 0) error_ = "kxsim mkfs failed: " + made.err;
  }
  ~SimFs() {
    unsetenv("KXSIM_FAULTS");
    unsetenv("KXSIM_LOG");
    unsetenv("KXSIM_CONFIG");
    if (!root_.empty()) RemoveTree(root_);
  }
  SimFs(const SimFs &) = delete;
  SimFs &operator=(const SimFs &) = delete;

  // Empty when the file system is ready, else what went wrong.
  const std::string &error() const { return error_; }
  const std::string &root() const { return root_; }
  const std::string &mnt() const { return mnt_; }
  const std::string &config() const { return config_; }
  std::string Path(const std::string &rel) const { return rel.empty() ? mnt_ : mnt_ + "/" + rel; }

  // `kxsim <args...>` with this process's KXSIM_* settings.
  CmdResult Kxsim(std::initializer_list<std::string> args) const {
    std::vector<std::string> argv{KXSIM_CLI};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunCommand(argv);
  }

  // Registers another simulated mount at <root>/<name>; returns its path.
  std::string Mkfs(const std::string &name, const std::string &fsid_hex = "") const {
    std::string dir = root_ + "/" + name;
    CmdResult made =
        fsid_hex.empty() ? Kxsim({"mkfs", dir}) : Kxsim({"mkfs", dir, "--fsid", fsid_hex});
    return made.exit_code == 0 ? dir : std::string();
  }

  bool MakeDir(const std::string &rel) const { return mkdir(Path(rel).c_str(), 0755) == 0; }

  // A file of `size` bytes: written (allocated) or only truncated (no blocks).
  bool MakeFile(const std::string &rel, off_t size, bool allocated = true) const {
    int fd = open(Path(rel).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    bool ok = true;
    if (allocated) {
      std::string data(static_cast<size_t>(size), 'x');
      ok = write(fd, data.data(), data.size()) == static_cast<ssize_t>(data.size());
    } else {
      ok = ftruncate(fd, size) == 0;
    }
    close(fd);
    return ok;
  }

  // Changes the config file's mtime, which the driver reports as the time
  // of the last mount-table change.
  bool TouchConfig(int seconds_later = 1) const {
    struct stat st {};
    if (stat(config_.c_str(), &st) != 0) return false;
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    times[1].tv_sec += seconds_later;
    return utimensat(AT_FDCWD, config_.c_str(), times, 0) == 0;
  }

  void SetFaults(const std::string &rules) const { setenv("KXSIM_FAULTS", rules.c_str(), 1); }
  void ClearFaults() const { unsetenv("KXSIM_FAULTS"); }

  // Starts a fresh request log and returns its path.
  std::string StartLog() const {
    std::string log = root_ + "/requests.log";
    unlink(log.c_str());
    setenv("KXSIM_LOG", log.c_str(), 1);
    return log;
  }
  std::vector<std::string> LogLines() const {
    return SplitLines(ReadFile(root_ + "/requests.log"));
  }
  // Log lines whose text contains every one of `parts`.
  std::vector<std::string> LogLinesWith(std::initializer_list<std::string> parts) const {
    std::vector<std::string> found;
    for (const std::string &line : LogLines()) {
      bool all = true;
      for (const std::string &part : parts) all = all && line.find(part) != std::string::npos;
      if (all) found.push_back(line);
    }
    return found;
  }

  // `kxsim attr|events|rep ...` returning trimmed standard output, or
  // "ERROR: <stderr>" when the command failed.
  std::string Query(std::initializer_list<std::string> args) const {
    CmdResult r = Kxsim(args);
    if (r.exit_code != 0) return "ERROR: " + r.err;
    while (!r.out.empty() && (r.out.back() == '\n' || r.out.back() == ' ')) r.out.pop_back();
    return r.out;
  }

 private:
  std::string root_, mnt_, config_, error_;
};

class SimFsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ("", fs.error()); }
  SimFs fs;
};

}  // namespace vdtest
