// Test support shared by the unit tests: temporary directories, captured
// standard error, and test code run in a forked child for behaviour that is
// once per process or ends it.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace vdtest {

inline void RemoveTree(const std::string &path) {
  nftw(
      path.c_str(),
      [](const char *p, const struct stat *, int, struct FTW *) {
        remove(p);  // best effort: keep removing the rest
        return 0;
      },
      16, FTW_DEPTH | FTW_PHYS);
}

inline std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> SplitLines(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// A fresh directory "/tmp/<prefix>.XXXXXX"; empty if none could be made.
inline std::string MakeTempDir(const std::string &prefix) {
  std::string tmpl = "/tmp/" + prefix + ".XXXXXX";
  return mkdtemp(tmpl.data()) != nullptr ? tmpl : std::string();
}

// What `body` writes to standard error.
inline std::string StderrOf(const std::function<void()> &body) {
  testing::internal::CaptureStderr();
  body();
  return testing::internal::GetCapturedStderr();
}

// A call's result and, when it fails, its errno by name ("-1 EIO"); errno is
// cleared first so that a stale value cannot pass for the call's.
template <typename Call>
std::string Outcome(Call &&call) {
  errno = 0;
  const auto rc = call();
  if (rc == 0) return "0";
  const char *name = strerrorname_np(errno);
  return std::to_string(rc) + " " + (name != nullptr ? name : std::to_string(errno));
}

// Outcome of one expression, as in EXPECT_EQ("-1 EIO", OUTCOME(dm_x(...))).
#define OUTCOME(call) ::vdtest::Outcome([&] { return call; })

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

// The child runs `body` with its standard output and error captured, and
// ends with _exit(0) unless the body ends it first.
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

}  // namespace vdtest
