#include "support/process.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "support/test_support.h"

namespace vdtest {

namespace {

// In a coverage build a child writes its counts before it ends: _exit and
// an abort would lose everything it covered.
#ifdef VD_COVERAGE_BUILD
extern "C" void __gcov_dump(void);

void WriteCoverageAndAbort(int) {
  __gcov_dump();
  signal(SIGABRT, SIG_DFL);
  raise(SIGABRT);
}

void WriteCoverageOnAbort() { signal(SIGABRT, WriteCoverageAndAbort); }
void WriteCoverage() { __gcov_dump(); }
#else
void WriteCoverageOnAbort() {}
void WriteCoverage() {}
#endif

// An unnamed file, so an aborted test leaves nothing behind. Close-on-exec:
// a program run with a descriptor limit must not start with three used.
FILE *ScratchFile(const std::string &text = "") {
  FILE *f = std::tmpfile();
  if (f == nullptr) return nullptr;
  fcntl(fileno(f), F_SETFD, FD_CLOEXEC);
  std::fwrite(text.data(), 1, text.size(), f);
  std::fflush(f);
  std::rewind(f);
  return f;
}

ChildResult Fork(const std::function<void()> &body, const std::string &stdin_text) {
  ChildResult result;
  FILE *in = ScratchFile(stdin_text);
  FILE *out = ScratchFile();
  FILE *err = ScratchFile();
  if (in != nullptr && out != nullptr && err != nullptr) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(fileno(in), STDIN_FILENO);
      dup2(fileno(out), STDOUT_FILENO);
      dup2(fileno(err), STDERR_FILENO);
      WriteCoverageOnAbort();
      body();
      std::fflush(nullptr);
      WriteCoverage();
      _exit(0);
    }
    while (pid > 0 && waitpid(pid, &result.status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(result.status)) result.exit_code = WEXITSTATUS(result.status);
  }
  if (in != nullptr) std::fclose(in);
  if (out != nullptr) result.out = ReadAll(out);  // ReadAll closes the file
  if (err != nullptr) result.err = ReadAll(err);
  return result;
}

[[noreturn]] void Exec(const std::vector<std::string> &argv, const RunOptions &opts,
                       const std::string &gcov_dir) {
  for (const auto &name : opts.unset_env) unsetenv(name.c_str());
  for (const auto &[name, value] : opts.env) setenv(name.c_str(), value.c_str(), 1);
  // In a coverage build nobody could not write the profile beside the
  // build's own; it goes to this run's own directory, fresh each time, so
  // that a profile of an older build cannot clash with it.
  if (opts.as_nobody) setenv("GCOV_PREFIX", gcov_dir.c_str(), 1);
  if (opts.as_nobody && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                         setresuid(65534, 65534, 65534) != 0)) {
    _exit(126);
  }
  if (opts.max_open_files > 0) {
    const auto limit = static_cast<rlim_t>(opts.max_open_files);
    const rlimit both{limit, limit};
    if (setrlimit(RLIMIT_NOFILE, &both) != 0) _exit(125);
  }
  std::vector<char *> args;
  for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  execv(args[0], args.data());
  _exit(127);
}

}  // namespace

CmdResult RunCommand(const std::vector<std::string> &argv, const RunOptions &opts) {
  std::string scratch;
  if (opts.as_nobody) {
    scratch = MakeTempDir("vdrun");
    if (scratch.empty() || chmod(scratch.c_str(), 0711) != 0 ||
        mkdir((scratch + "/gcov").c_str(), 0777) != 0 ||
        chmod((scratch + "/gcov").c_str(), 0777) != 0) {
      if (!scratch.empty()) RemoveTree(scratch);
      return {};
    }
  }
  CmdResult result = Fork([&] { Exec(argv, opts, scratch + "/gcov"); }, opts.stdin_text);
  if (!scratch.empty()) RemoveTree(scratch);
  return result;
}

ChildResult RunInChild(const std::function<void()> &body) {
  return Fork(body, "");
}

}  // namespace vdtest
