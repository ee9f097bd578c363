#include "libutil/dopanic.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "libutil/priv_check.h"
#include "support/test_support.h"

static const char kx_source_path[] = "tests/libutil/dopanic_test";

// Asserts and first prints the line number the assertion reports.
#define KX_ASSERT_SHOWING_LINE(e) (std::printf("%d", __LINE__), std::fflush(stdout), KX_ASSERT(e))

namespace {

using vdtest::ChildResult;

std::vector<std::pair<int, std::string>> g_logged;
void RecordLog(int level, const char *text) {
  g_logged.emplace_back(level, text);
}

// Every case runs in a child: panics end the process, and the checked-build
// check logs its reason once per process.
ChildResult InChild(const std::function<void()> &body) {
  return vdtest::RunInChild([&] {
    unsetenv("VDFS_CHECKED_BUILD");
    unsetenv("APPLIANCE_TYPE");
    body();
  });
}

// How the child ended ("abort" or "exit <status>") and its standard error,
// with "@" for the line number an assertion printed first.
std::string Ending(const std::function<void()> &body) {
  ChildResult r = InChild(body);
  std::string err = r.err;
  if (const size_t at = err.rfind(r.out); !r.out.empty() && at != std::string::npos)
    err.replace(at, r.out.size(), "@");
  if (r.killed_by(SIGABRT)) return "abort: " + err;
  return (WIFEXITED(r.status) ? "exit " + std::to_string(r.exit_code) : "other") + ": " + err;
}

TEST(DoPanicTest, EachPanicWritesOneLineAndEndsTheProcess) {
  EXPECT_EQ(
      "abort: PANIC: vdpostrestore ASSERT failed \"entries == 3\" file "
      "tests/libutil/dopanic_test, line @\n",
      Ending([] {
        set_caller_name("vdpostrestore");
        int entries = 2;
        KX_ASSERT_SHOWING_LINE(entries == 3);
      }));
  EXPECT_EQ("exit 7: HALT: libutil bad \"x\" file libutil/f, line 12\n", Ending([] {
              PanicNoCoreExitCode = 7;
              std::snprintf(PanicNomenclature, sizeof PanicNomenclature, "HALT");
              DoPanic("bad ", "x", 0, "libutil/f", 12);
            }));
  // A hook that returns does not let the caller run on.
  EXPECT_EQ("exit 1: [ASSERT failed |false|1|tests/libutil/dopanic_test|@]", Ending([] {
              DoPanicFn = [](const char *msg, const char *expr, int core, const char *file,
                             int line) {
                std::fprintf(stderr, "[%s|%s|%d|%s|%d]", msg, expr, core, file, line);
              };
              KX_ASSERT_SHOWING_LINE(false);
            }));
  // An overlong line is cut to 2047 characters before its newline.
  EXPECT_EQ("exit 1: PANIC: libutil m \"" + std::string(2029, 'e') + "\n",
            Ending([] { DoPanic("m ", std::string(5000, 'e').c_str(), 0, "f", 1); }));
  // A checked build's internal error dumps core, with an empty message word.
  EXPECT_EQ("abort: PANIC: libutil \"bad count 5\" file libutil/x, line 42\n", Ending([] {
              setenv("VDFS_CHECKED_BUILD", "1", 1);
              PanicCheckedBuild("libutil/x", 42, "bad count %d", 5);
            }));
}

enum Touch { kNoTouch, kTouchFile, kTouchDir, kTouchLink };
constexpr char kTouchPath[] = "/usr/burn/test/checked_build/ENABLED";

// Lays a tmpfs over /usr in this child's own mount namespace, made private
// first so that nothing reaches the host, and makes the touch file there as
// `kind`. False when the namespace cannot be had.
bool FakeTouchFile(Touch kind) {
  std::error_code ec;
  if (unshare(CLONE_NEWNS) != 0 ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("none", "/usr", "tmpfs", 0, nullptr) != 0 ||
      !std::filesystem::create_directories("/usr/burn/test/checked_build", ec))
    return false;
  switch (kind) {
    case kTouchFile:
      return std::ofstream(kTouchPath).good();
    case kTouchDir:
      return mkdir(kTouchPath, 0755) == 0;
    case kTouchLink:
      return std::ofstream("/usr/target").good() && symlink("/usr/target", kTouchPath) == 0;
    case kNoTouch:
      break;
  }
  return true;
}

TEST(DoPanicTest, CheckedBuildDecisionAndItsReason) {
  const std::string env_off = "00 1:Checked Build disabled - 'VDFS_CHECKED_BUILD' env var.\n|";
  const std::string env_on = "11 0:Checked Build enabled - 'VDFS_CHECKED_BUILD' env var.\n|";
  const std::string appliance = "00 1:Checked Build disabled - Merrow.\n|";
  const std::string fallback = "00 1:Checked Build disabled - default.\n|";
  const std::string touched =
      "11 0:Checked Build enabled - '/usr/burn/test/checked_build/ENABLED' touch file found.\n|";
  struct Case {
    const char *checked, *appliance;
    const std::string &expected;
    Touch touch = kNoTouch;
  };
  const Case cases[] = {
      {"0", nullptr, env_off},
      {"0ff", nullptr, env_off},
      {"1", nullptr, env_on},
      {"", nullptr, env_on},
      {"no", "merrow", env_on},  // any other value enables, even on an appliance
      {nullptr, "tarnhol", appliance},
      {nullptr, "merrow", appliance},
      {nullptr, "tarnholX", fallback},  // the appliance name must match exactly
      {nullptr, "Merrow", fallback},
      {nullptr, nullptr, fallback},
      {nullptr, nullptr, touched, kTouchFile},
      {nullptr, nullptr, touched, kTouchLink},  // followed to the regular file
      {nullptr, nullptr, fallback, kTouchDir},
      {"0", nullptr, env_off, kTouchFile},  // the variable and the appliance come first
      {nullptr, "merrow", appliance, kTouchFile},
  };
  struct stat st;
  const bool host_touched = stat(kTouchPath, &st) == 0;
  bool no_namespace = false;
  for (const Case &c : cases) {
    // The host's own touch file would say otherwise.
    if (&c.expected == &fallback && c.touch == kNoTouch && host_touched) continue;
    // Prints both calls' results and every logged line as " level:text|".
    const ChildResult r = InChild([&] {
      if (c.touch != kNoTouch && !FakeTouchFile(c.touch)) {
        std::printf("no namespace");
        return;
      }
      if (c.checked) setenv("VDFS_CHECKED_BUILD", c.checked, 1);
      if (c.appliance) setenv("APPLIANCE_TYPE", c.appliance, 1);
      WriteLog = RecordLog;
      const int first = IsVdfsCheckedBuild();
      std::printf("%d%d", first, IsVdfsCheckedBuild());
      for (const auto &[level, text] : g_logged) std::printf(" %d:%s|", level, text.c_str());
    });
    if (r.out == "no namespace") {
      no_namespace = true;
      continue;
    }
    EXPECT_EQ(c.expected, r.out) << (c.checked ? c.checked : "-") << " "
                                 << (c.appliance ? c.appliance : "-") << " " << c.touch;
  }
  if (no_namespace) GTEST_SKIP() << "no private mount namespace: touch-file cases not run";
}

// Without a checked build an internal error is one report line and the
// caller runs on; report lines go to the log hook at the error level, or to
// standard error without one, and always end in a newline.
TEST(DoPanicTest, UncheckedBuildReportsTheErrorAndReturns) {
  const auto report = [] {
    setenv("VDFS_CHECKED_BUILD", "0", 1);
    PanicCheckedBuild("libutil/x", 42, "bad count %d", 5);
    PanicCheckedWriteLog("one");
    PanicCheckedWriteLog("two\n");
    PanicCheckedWriteLog("");
  };
  auto r = InChild(report);
  EXPECT_TRUE(r.exited_with(0));
  EXPECT_EQ("ERROR (libutil/x:42) bad count 5\none\ntwo\n\n", r.err);
  r = InChild([&] {
    WriteLog = RecordLog;
    report();
    PanicCheckedBuild("f", 1, "%s", std::string(3000, 'm').c_str());  // cut to 1023 characters
    for (const auto &[level, text] : g_logged) std::printf("%d:%s|", level, text.c_str());
  });
  EXPECT_EQ("", r.err);
  EXPECT_EQ(
      "1:Checked Build disabled - 'VDFS_CHECKED_BUILD' env var.\n|"
      "3:ERROR (libutil/x:42) bad count 5\n|3:one\n|3:two\n|3:\n|3:ERROR (f:1) " +
          std::string(1011, 'm') + "\n|",
      r.out);
}

}  // namespace
