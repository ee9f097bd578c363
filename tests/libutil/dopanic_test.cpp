#include "libutil/dopanic.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
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
using vdtest::RunInChild;

std::vector<std::pair<int, std::string>> g_logged;
void RecordLog(int level, const char *text) {
  g_logged.emplace_back(level, text);
}

// Every case runs in a child: panics end the process, and the checked-build
// check logs its reason once per process.
class DoPanicTest : public ::testing::Test {
 protected:
  static ChildResult Run(const std::function<void()> &body) {
    return RunInChild([&] {
      unsetenv("VDFS_CHECKED_BUILD");
      unsetenv("APPLIANCE_TYPE");
      body();
    });
  }
  enum Touch { kNoTouch, kTouchFile, kTouchDir, kTouchLink };
  // Lays a tmpfs over /usr in this child's own mount namespace, made private
  // first so that nothing reaches the host, and makes the touch file there
  // as `kind`. False when the namespace cannot be had.
  static bool FakeTouchFile(Touch kind) {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", "/usr", "tmpfs", 0, nullptr) != 0)
      return false;
    for (const char *dir : {"/usr/burn", "/usr/burn/test", "/usr/burn/test/checked_build"})
      if (mkdir(dir, 0755) != 0) return false;
    const char *path = "/usr/burn/test/checked_build/ENABLED";
    switch (kind) {
      case kTouchFile:
        return close(creat(path, 0644)) == 0;
      case kTouchDir:
        return mkdir(path, 0755) == 0;
      case kTouchLink:
        return close(creat("/usr/target", 0644)) == 0 && symlink("/usr/target", path) == 0;
      case kNoTouch:
        break;
    }
    return true;
  }
  // Prints the checked-build result and every logged line as "level:text|",
  // or "no namespace" when the touch file could not be faked.
  static ChildResult RunChecked(const char *checked, const char *appliance, Touch touch) {
    return Run([=] {
      if (touch != kNoTouch && !FakeTouchFile(touch)) {
        std::printf("no namespace");
        return;
      }
      if (checked != nullptr) setenv("VDFS_CHECKED_BUILD", checked, 1);
      if (appliance != nullptr) setenv("APPLIANCE_TYPE", appliance, 1);
      WriteLog = RecordLog;
      const int first = IsVdfsCheckedBuild();
      const int second = IsVdfsCheckedBuild();
      std::printf("%d%d", first, second);
      for (const auto &[level, text] : g_logged) std::printf(" %d:%s|", level, text.c_str());
    });
  }
  static bool TouchFileExists() {
    struct stat st;
    return stat("/usr/burn/test/checked_build/ENABLED", &st) == 0;
  }
};

TEST_F(DoPanicTest, FailedAssertionWritesOneLineAndAborts) {
  auto r = Run([] {
    set_caller_name("vdpostrestore");
    int entries = 2;
    KX_ASSERT_SHOWING_LINE(entries == 3);
  });
  EXPECT_TRUE(r.killed_by(SIGABRT)) << r.status;
  ASSERT_FALSE(r.out.empty());
  EXPECT_EQ(
      "PANIC: vdpostrestore ASSERT failed \"entries == 3\" file "
      "tests/libutil/dopanic_test, line " +
          r.out + "\n",
      r.err);
}

TEST_F(DoPanicTest, NoCorePanicExitsWithConfiguredStatus) {
  auto r = Run([] {
    PanicNoCoreExitCode = 7;
    std::snprintf(PanicNomenclature, sizeof PanicNomenclature, "HALT");
    DoPanic("bad ", "x", 0, "libutil/f", 12);
  });
  EXPECT_TRUE(r.exited_with(7)) << r.status;
  EXPECT_EQ("HALT: libutil bad \"x\" file libutil/f, line 12\n", r.err);
}

TEST_F(DoPanicTest, HookThatReturnsEndsWithStatusOne) {
  auto r = Run([] {
    DoPanicFn = [](const char *msg, const char *expr, int core, const char *file, int line) {
      std::fprintf(stderr, "[%s|%s|%d|%s|%d]", msg, expr, core, file, line);
    };
    KX_ASSERT_SHOWING_LINE(false);
  });
  EXPECT_TRUE(r.exited_with(1)) << r.status;
  EXPECT_EQ("[ASSERT failed |false|1|tests/libutil/dopanic_test|" + r.out + "]", r.err);
}

TEST_F(DoPanicTest, OverlongPanicLineIsCut) {
  auto r = Run([] {
    const std::string expr(5000, 'e');
    DoPanic("m ", expr.c_str(), 0, "f", 1);
  });
  EXPECT_TRUE(r.exited_with(1));
  ASSERT_EQ(2048u, r.err.size());
  EXPECT_EQ("PANIC: libutil m \"eee", r.err.substr(0, 21));
  EXPECT_EQ("e\n", r.err.substr(2046));
}

TEST_F(DoPanicTest, CheckedBuildDecisionAndItsReason) {
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
  bool no_namespace = false;
  for (const Case &c : cases) {
    // The host's own touch file would say otherwise.
    if (&c.expected == &fallback && c.touch == kNoTouch && TouchFileExists()) continue;
    const std::string out = RunChecked(c.checked, c.appliance, c.touch).out;
    if (out == "no namespace") {
      no_namespace = true;
      continue;
    }
    EXPECT_EQ(c.expected, out) << (c.checked ? c.checked : "-") << " "
                               << (c.appliance ? c.appliance : "-") << " " << c.touch;
  }
  if (no_namespace) GTEST_SKIP() << "no private mount namespace: touch-file cases not run";
}

TEST_F(DoPanicTest, CheckedBuildPanicDumpsCoreWithEmptyMessageWord) {
  auto r = Run([] {
    setenv("VDFS_CHECKED_BUILD", "1", 1);
    PanicCheckedBuild("libutil/x", 42, "bad count %d", 5);
  });
  EXPECT_TRUE(r.killed_by(SIGABRT)) << r.status;
  EXPECT_EQ("PANIC: libutil \"bad count 5\" file libutil/x, line 42\n", r.err);
}

TEST_F(DoPanicTest, UncheckedBuildReportsTheErrorAndReturns) {
  auto r = Run([] {
    setenv("VDFS_CHECKED_BUILD", "0", 1);
    PanicCheckedBuild("libutil/x", 42, "bad count %d", 5);
    WriteLog = RecordLog;
    PanicCheckedBuild("f", 1, "%s", std::string(3000, 'm').c_str());
    const auto &[level, text] = g_logged.back();
    std::printf("%zu %d %zu %s %s", g_logged.size(), level, text.size(), text.substr(0, 14).c_str(),
                text.substr(text.size() - 2) == "m\n" ? "nl" : "-");
  });
  EXPECT_TRUE(r.exited_with(0));
  EXPECT_EQ("ERROR (libutil/x:42) bad count 5\n", r.err);
  // With a log hook the line goes there at the error level, cut to 1023
  // characters and given its newline back.
  EXPECT_EQ("1 3 1024 ERROR (f:1) mm nl", r.out);
}

TEST_F(DoPanicTest, WriteLogLinesGetANewlineWithOrWithoutHook) {
  const auto write_three = [] {
    PanicCheckedWriteLog("one");
    PanicCheckedWriteLog("two\n");
    PanicCheckedWriteLog("");
  };
  EXPECT_EQ("one\ntwo\n\n", Run(write_three).err);
  auto r = Run([&] {
    WriteLog = RecordLog;
    write_three();
    for (const auto &[level, text] : g_logged) std::printf("%d:%s|", level, text.c_str());
  });
  EXPECT_EQ("3:one\n|3:two\n|3:\n|", r.out);
  EXPECT_EQ("", r.err);
}

}  // namespace
