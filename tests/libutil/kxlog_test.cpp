#include "libutil/kxlog.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "libutil/dopanic.h"
#include "support/test_support.h"

namespace {

// The default hooks write to standard error, captured in a child; a line of
// any length is written whole.
TEST(KxLogTest, LevelTagsAndSingleNewline) {
  const std::string body(5000, 'z');
  EXPECT_EQ("INFO: a 1\nNOTICE: b\nWARNING: c\nERROR: d\nLOG7: e\nLOG-1: f\nDEBUG2: t\nERROR: " +
                body + "\n",
            vdtest::RunInChild([&] {
              __kxfs_logfn(KXLOG_INFO, "a %d", 1);
              __kxfs_logfn(KXLOG_NOTICE, "b\n");
              __kxfs_logfn(KXLOG_WARNING, "%s", "c");
              __kxfs_logfn(KXLOG_ERROR, "d\n");
              __kxfs_logfn(7, "e");
              __kxfs_logfn(-1, "f");
              __kxfs_debugfn(2, "t");
              __kxfs_logfn(KXLOG_ERROR, "%s", body.c_str());
            }).err);
}

// Logging leaves errno alone. The adapter fits the checked-build log hook and
// passes its text as text, not as a format.
TEST(KxLogTest, ErrnoSurvivesAndTheWriteLogAdapterLogsVerbatim) {
  EXPECT_EQ("ERROR: x\nERROR: ERROR (f:2) 100% sure\n", vdtest::StderrOf([] {
              errno = EXDEV;
              __kxfs_logfn(KXLOG_ERROR, "x");
              EXPECT_EQ(EXDEV, errno);
              WriteLog = kxfs_write_log;
              PanicCheckedWriteLog("ERROR (f:2) 100% sure");
              WriteLog = nullptr;
            }));
}

}  // namespace
