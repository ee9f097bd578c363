// The walk stays inside the tree even when the tree changes under it:
// races are made deterministic with the simulator's run= rules, which run a
// command just before the tool's request is answered.
#include <filesystem>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
namespace fsys = std::filesystem;

class PostRestoreContainmentTest : public toolrun::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    outside = fs.root() + "/outside";
    fs.blockless("../outside/victim", 100);
    fs.blockless("a/sub/inner", 100);
  }
  // A shell command that swaps a/sub for a symbolic link to `target`,
  // parking the real directory outside the mount.
  std::string swap_to(const std::string &target) const {
    return "mv " + fs.Path("a/sub") + " " + fs.root() + "/parked && ln -s " + target + " " +
           fs.Path("a/sub");
  }
  std::string outside;
};

// The directory is swapped after it was examined and just before its
// entries are read: the walk goes on in the directory it examined.
TEST_F(PostRestoreContainmentTest, DirectorySwappedForSymlinkIsNotFollowed) {
  CmdResult r =
      fs.run({"-r"}, "kind=ioctl,code=1038,name=VDEA,path=/a/sub,count=1,run=" + swap_to(outside));
  ASSERT_TRUE(fsys::is_symlink(fs.Path("a/sub"))) << "the race did not happen";
  EXPECT_TRUE(fsys::exists(outside + "/victim")) << r.out << r.err;
  EXPECT_EQ(std::string::npos, fs.log().find("victim")) << fs.log();
}

// Replaced by another directory between its examination and its open: the
// walk would read the other with this one's policy view, so it stops.
TEST_F(PostRestoreContainmentTest, DirectoryReplacedBeforeItsOpenEndsTheRun) {
  CmdResult r = fs.run({"-r"}, "kind=open,path=/a/sub,count=1,run=mv " + fs.Path("a/sub") + " " +
                                   fs.root() + "/parked && mkdir " + fs.Path("a/sub"));
  ASSERT_TRUE(fsys::exists(fs.root() + "/parked/inner")) << "the race did not happen";
  EXPECT_EQ(1, r.exit_code) << r.out;
  EXPECT_NE(std::string::npos, r.err.find("Directory " + fs.Path("a/sub") +
                                          " changed while it was being processed.\n"))
      << r.err;
}

// Swapped while its handle is resolved: the relation-point answer would
// belong to another directory, so the run stops instead of using it.
TEST_F(PostRestoreContainmentTest, DirectorySwappedWhileResolvedEndsTheRun) {
  fs.relation_point("a/sub");
  fs.blockless("plain/x", 100);
  CmdResult r =
      fs.run({"-r"}, "kind=dmig,code=7,path=/a/sub,count=1,run=" + swap_to(fs.Path("plain")));
  ASSERT_TRUE(fsys::is_symlink(fs.Path("a/sub"))) << "the race did not happen";
  EXPECT_EQ(1, r.exit_code) << r.out;
  EXPECT_TRUE(fsys::exists(fs.root() + "/parked/inner"))
      << "a file under a relation point was removed";
  EXPECT_TRUE(fsys::exists(outside + "/victim"));
}

// A mount inside the tree, of another file system or of this one, is not
// entered: through it the walk would reach files under other names and
// other policies (here a relation point's). A run started inside such a
// mount cannot tell what lies above it and stops. The mounts live in a
// private mount namespace (root only; skipped where none can be made).
TEST_F(PostRestoreContainmentTest, MountsInsideTheTreeAreNotEntered) {
  fs.relation_point("rp");
  fs.blockless("rp/kept", 100);
  ASSERT_TRUE(fs.MakeDir("nested"));
  ASSERT_TRUE(fs.MakeDir("bind"));
  const std::string nested = fs.Path("nested"), bind = fs.Path("bind");
  const std::string mounts = "mount -t tmpfs tmpfs " + nested + " && truncate -s 100 " + nested +
                             "/sparse && mount --bind " + fs.Path("rp") + " " + bind;
  const std::string kept = "[ -e " + nested + "/sparse ] && echo KEPT";
  CmdResult r = fs.run({"-r"}, "", {}, toolrun::in_private_mounts(mounts, kept));
  if (toolrun::no_private_mounts(r)) GTEST_SKIP() << "no private mount namespace: " << r.err;
  EXPECT_EQ(0, r.exit_code) << r.err;
  for (const std::string &dir : {nested, bind}) {
    EXPECT_NE(std::string::npos,
              r.out.find("Skipping directory " + dir + ": another mount is rooted there.\n"))
        << r.out;
  }
  EXPECT_NE(std::string::npos, r.out.find("KEPT"));
  EXPECT_TRUE(fs.Exists("rp/kept"));
  EXPECT_EQ(std::vector<std::string>{fs.Path("a/sub/inner")}, fs.logged(true));

  r = fs.tool({"-r", "-f", fs.log_path(), bind}, "", {}, toolrun::in_private_mounts(mounts, "true"));
  EXPECT_EQ(1, r.exit_code);
  EXPECT_EQ("Cannot place " + bind + " below the root " + fs.mnt() +
                " of its file system: it is reached through another mount.\n",
            r.err);
  EXPECT_TRUE(fs.Exists("rp/kept"));
}

}  // namespace
