// Test support: child processes with their output captured, for programs
// (RunCommand) and for test code that is once per process or ends it
// (RunInChild). One fork serves both, so both see the same redirections.
#pragma once

#include <sys/wait.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vdtest {

struct ChildResult {
  int status = -1;     // as from waitpid; -1 when no child could be started
  int exit_code = -1;  // exit status, or -1 when it did not exit normally
  std::string out;
  std::string err;

  bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killed_by(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};
using CmdResult = ChildResult;

struct RunOptions {
  std::map<std::string, std::string> env;  // added to (or replacing) the environment
  std::vector<std::string> unset_env;
  std::string stdin_text;
  bool as_nobody = false;  // uid and gid 65534 from the exec on (needs root)
  int max_open_files = 0;  // RLIMIT_NOFILE of the program, when non-zero
};

// Runs argv[0], a path (no PATH search), with this process's environment
// as `opts` changes it. Standard input is `opts.stdin_text`.
CmdResult RunCommand(const std::vector<std::string> &argv, const RunOptions &opts = {});

// The child runs `body` with its standard output and error captured, and
// ends with _exit(0) unless the body ends it first.
ChildResult RunInChild(const std::function<void()> &body);

}  // namespace vdtest
