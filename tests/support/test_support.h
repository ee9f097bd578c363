// Test support shared by the unit tests: temporary directories, files as
// strings, captured standard error and call outcomes; child processes come
// from support/process.h.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/process.h"

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

// The whole of `f` from its start; closes it.
inline std::string ReadAll(FILE *f) {
  std::string text;
  std::rewind(f);
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
  std::fclose(f);
  return text;
}

}  // namespace vdtest
