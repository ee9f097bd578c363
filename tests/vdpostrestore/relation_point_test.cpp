// Storage-manager relation points and directory policy attributes.
#include <gtest/gtest.h>

#include <string>

#include "tool_harness.h"

namespace {

using toolrun::grep;
using toolrun::RunResult;
using toolrun::SimFs;

class PostRestoreRelationPointTest : public ::testing::Test {
 protected:
  SimFs fs;
};

TEST_F(PostRestoreRelationPointTest, EverythingBelowARelationPointIsLeftAlone) {
  fs.relation_point("rp");
  fs.blockless("rp/f", 100);
  fs.blockless("rp/sub/g", 100);
  fs.blockless("rp/sub/deeper/h", 100);
  fs.blockless("plain/y", 100);
  RunResult r = fs.tool({"-vv", "-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(toolrun::log_header(fs.mnt(), true) + fs.path("plain/y") + "\n", fs.log());
  EXPECT_TRUE(fs.exists("rp/f") && fs.exists("rp/sub/g") && fs.exists("rp/sub/deeper/h"));
  EXPECT_EQ(1u, grep(r.out, "Dir has attributes.").size());
  EXPECT_EQ(1u,
            grep(r.out, "Directory " + fs.path("rp") + " is under a SM relation point.").size());
  EXPECT_EQ(3u, grep(r.out, "  File is managed by SM, Skipping.").size());

  // Directories below the relation point are not asked again: three
  // directories (the mount point, rp, plain) are resolved and read, not five.
  std::string requests = fs.request_log();
  EXPECT_EQ(3u, grep(requests, "name=VDEA").size()) << requests;
  std::size_t path_to_handle = 0;  // flags 1; the mount cache asks with flags 0
  for (const auto &line : grep(requests, " flags=1 "))
    path_to_handle += line.rfind("dmig 0x7 ", 0) == 0;
  EXPECT_EQ(3u, path_to_handle) << requests;
  for (const auto &line : grep(requests, "rp/sub")) {
    EXPECT_EQ(std::string::npos, line.find("name=VDEA")) << line;
    EXPECT_NE(0u, line.rfind("dmig 0x7 ", 0)) << line;
  }
}

TEST_F(PostRestoreRelationPointTest, VdeaWithoutAllThreeEventsIsNotARelationPoint) {
  fs.relation_point("half", false);
  fs.kxsim({"events", "set", fs.path("half"), "0x1100"});  // remove and link, no create
  fs.blockless("half/x", 100);
  RunResult r = fs.tool({"-vv", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(
      1u,
      grep(r.out, "Directory " + fs.path("half") + " is not under a SM relation point.").size());
  EXPECT_EQ(toolrun::log_header(fs.mnt(), false) + fs.path("half/x") + "\n", fs.log());
}

TEST_F(PostRestoreRelationPointTest, NoVdeaIsNotARelationPoint) {
  fs.blockless("d/x", 100);
  RunResult r = fs.tool({"-vv", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.status) << r.err;
  EXPECT_EQ(1u, grep(r.out, "Not a relation point, no attributes found for directory " +
                                fs.path("d") + ".")
                    .size());
  EXPECT_TRUE(grep(r.out, "Dir has attributes.").empty());
}

}  // namespace
