// Failures of the driver, the file system and the log, and which of them
// end the run.
#include <gtest/gtest.h>

#include <string>

#include "tool_harness.h"

namespace {

using toolrun::RunResult;
using toolrun::SimFs;

class PostRestoreFaultTest : public ::testing::Test {
 protected:
  void SetUp() override { fs.blockless("d1/f", 100); }
  std::string header() const { return toolrun::log_header(fs.mnt(), false); }
  SimFs fs;
};

TEST_F(PostRestoreFaultTest, VdeaReadErrorIsFatal) {
  RunResult r =
      fs.tool({"-f", fs.log_path(), fs.mnt()}, "kind=ioctl,code=1038,name=VDEA,path=/d1,errno=EIO");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to get xattr for directory " + fs.path("d1") + ": Input/output error.\n",
            r.err);
  EXPECT_EQ(header(), fs.log()) << "no file of d1 may be reported";
}

TEST_F(PostRestoreFaultTest, VdeaMissingIsNotARelationPoint) {
  fs.relation_point("d1");
  for (const char *err : {"ENODATA", "ENOENT"}) {
    RunResult r = fs.tool({"-vv", "-f", fs.log_path(), fs.mnt()},
                          std::string("kind=ioctl,code=1038,name=VDEA,path=/d1,errno=") + err);
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    EXPECT_EQ(header() + fs.path("d1/f") + "\n", fs.log()) << err;
  }
}

// "VDEA" is there but the events cannot be read: the directory may be a
// relation point, so nothing below it is touched.
TEST_F(PostRestoreFaultTest, UnreadableRelationPointEventsKeepTheFiles) {
  fs.relation_point("d1");
  fs.blockless("d1/sub/g", 100);
  RunResult r =
      fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "kind=ioctl,code=1036,path=/d1,errno=EIO");
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("Failed to get attributes for directory " + fs.path("d1") + ": Input/output error.\n",
            r.err);
  EXPECT_EQ(toolrun::log_header(fs.mnt(), true), fs.log());
  EXPECT_TRUE(fs.exists("d1/f"));
  EXPECT_TRUE(fs.exists("d1/sub/g"));
  EXPECT_TRUE(toolrun::grep(fs.request_log(), fs.path("d1/sub") + " name=VDEA").empty())
      << "not asked again";
}

// Without the mount table the library cannot find the file system and says
// ENOENT: that is no answer about "VDEA", and the run stops.
TEST_F(PostRestoreFaultTest, UnlocatableFileSystemIsFatal) {
  fs.relation_point("d1");
  RunResult r =
      fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "kind=ioctl,code=0x8010e693,errno=EIO");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to get xattr for directory " + fs.mnt() + ": No such file or directory.\n",
            r.err);
  EXPECT_TRUE(fs.exists("d1/f"));
}

TEST_F(PostRestoreFaultTest, UnreadableDirectoryPolicyAttributeIsNotFatal) {
  RunResult r =
      fs.tool({"-f", fs.log_path(), fs.mnt()}, "kind=ioctl,code=1038,name=BFST,path=/d1,errno=EIO");
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ("Failed to get xattr for directory " + fs.path("d1") + ": Input/output error.\n",
            r.err);
  EXPECT_EQ(header() + fs.path("d1/f") + "\n", fs.log());
}

// Without an inherited policy, the first open of a directory is the one that
// reads its own policy attribute, and its failure is reported as such.
TEST_F(PostRestoreFaultTest, UnopenableDirectoryIsFatal) {
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()}, "kind=open,path=/d1,count=1,errno=EMFILE");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("get_dir_vdp: Cannot open " + fs.path("d1") + ", Too many open files\n", r.err);
  EXPECT_EQ(header(), fs.log()) << "no file of d1 may be reported";
}

TEST_F(PostRestoreFaultTest, PathToHandleFailureIsFatal) {
  RunResult r = fs.tool({"-f", fs.log_path(), fs.mnt()}, "kind=dmig,code=7,path=/d1,errno=EIO");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(
      "Failed to get path-to-handle for directory " + fs.path("d1") + ": Input/output error.\n",
      r.err);
}

TEST_F(PostRestoreFaultTest, FailedRemovalIsFatalAndNotLogged) {
  RunResult r =
      fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "kind=unlink,path=/d1/f,errno=EACCES");
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to remove file " + fs.path("d1/f") + ": Permission denied.\n", r.err);
  EXPECT_EQ(toolrun::log_header(fs.mnt(), true), fs.log());
  EXPECT_TRUE(fs.exists("d1/f"));
}

// The log is the only record of what was reported; losing it must not pass
// for a complete run, and with -r nothing may go unrecorded.
TEST_F(PostRestoreFaultTest, UnwritableLogFailsTheRun) {
  RunResult r = fs.tool({"-f", "/dev/full", fs.mnt()});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to write logfile /dev/full: No space left on device.\n", r.err);

  r = fs.tool({"-r", "-f", "/dev/full", fs.mnt()});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ("Failed to write logfile /dev/full: No space left on device.\n", r.err);
  EXPECT_TRUE(fs.exists("d1/f")) << "nothing may be removed without a log";
}

}  // namespace
