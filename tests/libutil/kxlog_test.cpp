#include "libutil/kxlog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <string>

#include "libutil/dopanic.h"
#include "support/test_support.h"

namespace {

using vdtest::RunInChild;

std::string g_line;
int g_level = -1;
void Recorder(int level, const char *format, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(buf, sizeof buf, format, ap);
  va_end(ap);
  g_level = level;
  g_line = buf;
}

// The default hooks write to standard error, captured in a child.
class KxLogTest : public ::testing::Test {
 protected:
  static std::string Stderr(const std::function<void()> &body) { return RunInChild(body).err; }
};

TEST_F(KxLogTest, LevelTagsAndSingleNewline) {
  EXPECT_EQ("INFO: a 1\nNOTICE: b\nWARNING: c\nERROR: d\nLOG7: e\nLOG-1: f\nDEBUG2: t\n",
            Stderr([] {
              __kxfs_logfn(KXLOG_INFO, "a %d", 1);
              __kxfs_logfn(KXLOG_NOTICE, "b\n");
              __kxfs_logfn(KXLOG_WARNING, "%s", "c");
              __kxfs_logfn(KXLOG_ERROR, "d\n");
              __kxfs_logfn(7, "e");
              __kxfs_logfn(-1, "f");
              __kxfs_debugfn(2, "t");
            }));
}

TEST_F(KxLogTest, LongLineIsWrittenWhole) {
  const std::string body(5000, 'z');
  EXPECT_EQ("ERROR: " + body + "\n",
            Stderr([&] { __kxfs_logfn(KXLOG_ERROR, "%s", body.c_str()); }));
}

TEST_F(KxLogTest, ErrnoSurvivesLogging) {
  EXPECT_EQ("ERROR: x\n", vdtest::StderrOf([] {
              errno = EXDEV;
              __kxfs_logfn(KXLOG_ERROR, "x");
              EXPECT_EQ(EXDEV, errno);
            }));
}

TEST_F(KxLogTest, WriteLogAdapterRoutesThroughHookVerbatim) {
  const kxfs_logfn_t saved = __kxfs_logfn;
  __kxfs_logfn = Recorder;
  kxfs_write_log(3, "100% sure\n");
  __kxfs_logfn = saved;
  EXPECT_EQ(3, g_level);
  EXPECT_EQ("100% sure\n", g_line);
}

TEST_F(KxLogTest, AdapterFitsTheCheckedBuildLogHook) {
  EXPECT_EQ("ERROR: ERROR (f:2) oops\n", Stderr([] {
              WriteLog = kxfs_write_log;
              PanicCheckedWriteLog("ERROR (f:2) oops");
            }));
}

}  // namespace
