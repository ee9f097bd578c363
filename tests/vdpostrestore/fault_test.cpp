// Failures of the driver, the file system and the log, and which of them
// end the run. Whatever fails, a file is gone only if the log names it.
#include <cstring>
#include <utility>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::log_header;
using toolrun::ToolFs;
using PostRestoreFaultTest = toolrun::ToolTest;

TEST_F(PostRestoreFaultTest, FailuresThatEndTheRunOrAreReported) {
  const struct {
    const char *faults;
    bool remove, relation_point;
    int status;
    std::string err;  // "<d1>" and "<mnt>" stand for those paths
    bool reported;    // whether d1/f is in the log
  } cases[] = {
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=EIO", false, false, 1,
       "Failed to get xattr for directory <d1>: Input/output error.\n", false},
      // Without the mount table the library cannot find the file system and
      // says ENOENT: that is no answer about "VDEA".
      {"kind=ioctl,code=0x8010e693,errno=EIO", true, true, 1,
       "Failed to get xattr for directory <mnt>: No such file or directory.\n", false},
      // Without an inherited policy the first open of a directory is the one
      // that reads its own policy attribute.
      {"kind=open,path=/d1,count=1,errno=EMFILE", false, false, 1,
       "get_dir_vdp: Cannot open <d1>, Too many open files\n", false},
      {"kind=dmig,code=7,path=/d1,errno=EIO", false, false, 1,
       "Failed to get path-to-handle for directory <d1>: Input/output error.\n", false},
      {"kind=unlink,path=/d1/f,errno=EACCES", true, false, 1,
       "Failed to remove file <d1>/f: Permission denied.\n", false},
      {"kind=ioctl,code=1038,name=BFST,path=/d1,errno=EIO", false, false, 0,
       "Failed to get xattr for directory <d1>: Input/output error.\n", true},
      // A missing "VDEA" is no relation point, however the driver says so.
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=ENODATA", true, true, 0, "", true},
      {"kind=ioctl,code=1038,name=VDEA,path=/d1,errno=ENOENT", true, true, 0, "", true},
  };
  for (const auto &c : cases) {
    ToolFs one;
    one.blockless("d1/f", 100);
    if (c.relation_point) one.relation_point("d1");
    std::vector<std::string> args = {"-f", one.log_path(), one.mnt()};
    if (c.remove) args.insert(args.begin(), "-r");
    CmdResult r = one.tool(args, c.faults);
    std::string err = c.err;
    for (auto [name, value] : {std::pair{"<d1>", one.Path("d1")}, {"<mnt>", one.mnt()}}) {
      if (auto at = err.find(name); at != std::string::npos) err.replace(at, strlen(name), value);
    }
    EXPECT_EQ(c.status, r.exit_code) << c.faults;
    EXPECT_EQ(err, r.err) << c.faults;
    EXPECT_EQ(log_header(one.mnt(), c.remove) + (c.reported ? one.Path("d1/f") + "\n" : ""),
              one.log())
        << c.faults;
    EXPECT_EQ(!(c.remove && c.reported), one.Exists("d1/f")) << c.faults;
  }
}

// "VDEA" is there but the events cannot be read: the directory may be a
// relation point, so nothing below it is touched.
TEST_F(PostRestoreFaultTest, UnreadableRelationPointEventsKeepTheFiles) {
  fs.blockless("d1/f", 100);
  fs.relation_point("d1");
  fs.blockless("d1/sub/g", 100);
  CmdResult r =
      fs.tool({"-r", "-f", fs.log_path(), fs.mnt()}, "kind=ioctl,code=1036,path=/d1,errno=EIO");
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("Failed to get attributes for directory " + fs.Path("d1") + ": Input/output error.\n",
            r.err);
  EXPECT_EQ(log_header(fs.mnt(), true), fs.log());
  EXPECT_TRUE(fs.Exists("d1/f"));
  EXPECT_TRUE(fs.Exists("d1/sub/g"));
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("d1/sub") + " name=VDEA"}).empty()) << "not asked again";
}

// The log is the only record of what was reported; losing it must not pass
// for a complete run, and with -r nothing may go unrecorded.
TEST_F(PostRestoreFaultTest, UnwritableLogFailsTheRun) {
  fs.blockless("d1/f", 100);
  for (auto args : {std::vector<std::string>{}, {"-r"}}) {
    args.insert(args.end(), {"-f", "/dev/full", fs.mnt()});
    CmdResult r = fs.tool(args);
    EXPECT_EQ(1, r.exit_code);
    EXPECT_EQ("Failed to write logfile /dev/full: No space left on device.\n", r.err);
  }
  EXPECT_TRUE(fs.Exists("d1/f")) << "nothing may be removed without a log";
}

}  // namespace
