// Storage-manager relation points: a directory whose "VDEA" comes with the
// create, remove and link events, and everything below it.
#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::grep;
using PostRestoreRelationPointTest = toolrun::ToolTest;

// Only "VDEA" with all three events makes a relation point; below one,
// nothing is touched or even asked about.
TEST_F(PostRestoreRelationPointTest, EverythingBelowARelationPointIsLeftAlone) {
  fs.relation_point("rp");
  fs.blockless("rp/f", 100);
  fs.blockless("rp/sub/g", 100);
  fs.blockless("rp/sub/deeper/h", 100);
  fs.relation_point("half", false);
  fs.sim({"events", "set", fs.Path("half"), "0x1100"});  // remove and link, no create
  fs.blockless("half/x", 100);
  fs.blockless("plain/y", 100);
  CmdResult r = fs.tool({"-vv", "-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(fs.Exists("rp/f") && fs.Exists("rp/sub/g") && fs.Exists("rp/sub/deeper/h"));
  EXPECT_FALSE(fs.Exists("half/x") || fs.Exists("plain/y"));
  EXPECT_EQ(2u, grep(r.out, "Dir has attributes.").size());
  EXPECT_EQ(1u,
            grep(r.out, "Directory " + fs.Path("rp") + " is under a SM relation point.").size());
  EXPECT_EQ(
      1u,
      grep(r.out, "Directory " + fs.Path("half") + " is not under a SM relation point.").size());
  EXPECT_EQ(1u, grep(r.out, "Not a relation point, no attributes found for directory " +
                                fs.Path("plain") + ".")
                    .size());
  EXPECT_EQ(3u, grep(r.out, "  File is managed by SM, Skipping.").size());

  // Directories below the relation point are not asked again: four
  // directories (the mount point, rp, half, plain) are resolved and read.
  const std::string requests = vdtest::ReadFile(fs.LogPath());
  EXPECT_EQ(4u, fs.LogLinesWith({"name=VDEA"}).size()) << requests;
  std::size_t path_to_handle = 0;  // flags 1; the mount cache asks with flags 0
  for (const auto &line : fs.LogLinesWith({" flags=1 "})) {
    path_to_handle += line.starts_with("dmig 0x7 ");
  }
  EXPECT_EQ(4u, path_to_handle) << requests;
  for (const auto &line : fs.LogLinesWith({"rp/sub"})) {
    EXPECT_EQ(std::string::npos, line.find("name=VDEA")) << line;
    EXPECT_FALSE(line.starts_with("dmig 0x7 ")) << line;
  }
}

}  // namespace
