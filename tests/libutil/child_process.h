// Runs a piece of test code in a forked child with its standard output and
// standard error captured, for behaviour that is once per process or ends it.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

namespace libutil_test {

struct ChildResult {
  int status = -1;  // as from waitpid
  std::string out;
  std::string err;

  bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
  bool killed_by(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

inline std::string ReadAll(FILE *f) {
  std::string text;
  std::rewind(f);
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

// The child runs `body` and ends with _exit(0) unless the body ends it first.
inline ChildResult RunInChild(const std::function<void()> &body) {
  ChildResult result;
  FILE *out = std::tmpfile();
  FILE *err = std::tmpfile();
  if (out == nullptr || err == nullptr) return result;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    body();
    std::fflush(nullptr);
    _exit(0);
  }
  if (pid > 0) waitpid(pid, &result.status, 0);
  result.out = ReadAll(out);
  result.err = ReadAll(err);
  return result;
}

}  // namespace libutil_test
