// The tool on a file system the policy engine manages: policy information
// stripped where no copy is held elsewhere, files kept when their data is in
// object storage or the blockpool, the operator's question, policies that
// cannot be loaded, and relation points inside managed directories.
#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::grep;
using toolrun::RunOptions;
using toolrun::sorted;

class PostRestoreManagedTest : public toolrun::ToolTest {
 protected:
  // True when `rel` still carries any of the engine's per-file information.
  bool has_policy_info(const std::string &rel) const {
    const std::string state = fs.Query({"show", fs.Path(rel)});
    return state.find("attr BFST") != std::string::npos ||
           state.find("\nrep ") != std::string::npos ||
           state.find("events 0x70000000") != std::string::npos;
  }
  bool has_bfst(const std::string &rel) const {
    return !fs.Query({"attr", "get", fs.Path(rel), "BFST"}).starts_with("ERROR");
  }
};

// Nothing is stripped with -p, under key 0 (the file system's "global"
// policy) or under a relation point, where nothing is asked of a file at
// all. Each failed strip request is reported, and the rest of the work goes
// on.
TEST_F(PostRestoreManagedTest, KeyPolicyInformationIsStrippedOutsideRelationPoints) {
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir("k", 7);
  fs.keyed_dir("g", 0);
  fs.sim({"events", "set", fs.Path("k"), "0x70000000"});
  for (const char *rel : {"k/hole", "k/rp/f"}) {
    fs.blockless(rel, 100);
    fs.policy_info(rel);
  }
  for (const char *rel : {"k/full", "g/full"}) {
    fs.allocated(rel);
    fs.policy_info(rel);
  }
  fs.blockless("k/sub/deep", 10);
  fs.blockless("g/hole", 100);
  fs.relation_point("k/rp");
  fs.blockless("k/rp/sub/g", 100);
  CmdResult r = fs.run({"-p"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(has_policy_info("k/full"));
  r = fs.run({"-r"},
             "kind=ioctl,code=1058,path=/k/hole,errno=EIO;kind=ioctl,code=1062,path=/k/hole,"
             "errno=EIO");
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  EXPECT_EQ(sorted({fs.Path("g/hole"), fs.Path("k/hole"), fs.Path("k/sub/deep")}), fs.logged(true));
  EXPECT_EQ(1u, grep(r.out,
                     "remove_vdpolicy_info: dm_remove_dmattr failed for BFST, errno=5: "
                     "Input/output error")
                    .size());
  EXPECT_EQ(1u, grep(r.out, "remove_vdpolicy_info: Cannot dm_update_eventlist  " +
                                fs.Path("k/hole") + ", errno=5: Input/output error")
                    .size());
  EXPECT_FALSE(fs.Exists("k/hole"));
  EXPECT_FALSE(has_policy_info("k/full"));
  EXPECT_FALSE(has_bfst("k"));
  EXPECT_EQ("0x70000000", fs.Query({"events", "get", fs.Path("k")})) << "directories keep events";
  EXPECT_TRUE(has_policy_info("g/full"));
  EXPECT_TRUE(has_bfst("g"));
  EXPECT_TRUE(fs.Exists("k/rp/f"));
  EXPECT_TRUE(has_policy_info("k/rp/f"));
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("k/rp/f")}).empty());
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("k/rp/sub/g")}).empty());
}

// Under an object-store policy a blockless file goes only when its own
// "BFST" shows no stored copy, or when it has none; one whose "BFST" says
// nothing (too short to hold the flags) or that cannot be opened stays, and
// so does everything under a directory whose "BFST" is too short to hold a
// key. Nothing is stripped there, and -v adds no message.
TEST_F(PostRestoreManagedTest, ObjectStoreFilesAreKeptByTheirFlags) {
  fs.policy("key_8", "objs=on,objs_id=cloud1,objs_namespace=bucket1\n");
  fs.keyed_dir("w", 8);
  fs.blockless("w/stored", 100);
  fs.bfst("w/stored", 0x0400);
  fs.blockless("w/plain", 100);
  fs.bfst("w/plain", 0);
  fs.blockless("w/noattr", 100);
  // Flags end at byte 14: a value one byte shorter says nothing about them.
  fs.blockless("w/short", 100);
  fs.sim({"attr", "set", fs.Path("w/short"), "BFST", "00000000000000000000000004"});
  fs.blockless("w/exact", 100);
  fs.sim({"attr", "set", fs.Path("w/exact"), "BFST", "0000000000000000000000000400"});
  ASSERT_TRUE(fs.MakeDir("odd"));
  fs.sim({"attr", "set", fs.Path("odd"), "BFST", "08"});
  fs.blockless("odd/sub/f", 100);
  fs.blockless("w/unopened", 100);
  const std::string faults = "kind=open,path=/w/unopened,errno=EACCES";
  RunOptions opts;
  opts.env["KXFSCONF"] = fs.objs_conf_dir();
  CmdResult r = fs.run({"-vv"}, faults, opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(sorted({"Cannot open WAS managed file " + fs.Path("w/unopened") +
                        ", errno=13: Permission denied",
                    "Failed to get xattr for directory " + fs.Path("odd") +
                        ": value of 1 byte is too short.",
                    "Unable to obtain BFST EA for vdpolicyd managed file " + fs.Path("w/noattr") +
                        ": No data available",
                    "Unable to obtain BFST EA for vdpolicyd managed file " + fs.Path("w/short") +
                        ": value of 13 bytes is too short"}),
            sorted(vdtest::SplitLines(r.err)));
  EXPECT_EQ(2u, grep(r.out, "  Truncated file stored to WAS, Skipping").size());
  EXPECT_EQ(1u, grep(r.out, "  Truncated file under WAS policy, but not stored to WAS.").size());
  EXPECT_EQ(2u, grep(r.out, "  Cannot tell whether the file is stored to WAS, Skipping").size());
  EXPECT_EQ(sorted({fs.Path("w/noattr"), fs.Path("w/plain")}), fs.logged());
  EXPECT_TRUE(has_bfst("w/stored"));
  EXPECT_EQ(fs.run({}, faults, opts).out, fs.run({"-v"}, faults, opts).out)
      << "-v adds no message";
}

// The question is asked once however many directories deduplicate (not at
// all with -b), and its answer decides for the files whose copy is in the
// blockpool; a run that does not keep them strips their "BFST".
TEST_F(PostRestoreManagedTest, DedupQuestionDecidesOnceForBlockpoolFiles) {
  const std::string question = "do you wish to keep them (<y>/n)?";
  fs.policy("key_9", "dedup=on\n");
  for (const std::string dir : {"d1", "d2"}) {
    fs.keyed_dir(dir, 9);
    fs.blockless(dir + "/pooled", 100);
    fs.bfst(dir + "/pooled", 0x0001);
    fs.blockless(dir + "/lost", 100);
  }
  RunOptions opts;
  opts.stdin_text = "n\n";
  CmdResult r = fs.run({"-b"}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(grep(r.out, question).empty());
  EXPECT_EQ(sorted({fs.Path("d1/lost"), fs.Path("d2/lost")}), fs.logged());
  opts.stdin_text = "no\n";
  r = fs.run({}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err) << "files not kept are not asked about";
  EXPECT_EQ(1u, grep(r.out, question).size());
  EXPECT_EQ(4u, fs.logged().size());
  EXPECT_FALSE(has_bfst("d1/pooled"));
}

// A directory whose policy cannot be loaded ends the run before anything
// under it is touched; the library's reason (its texts are the policy
// library's own) is written above the message.
TEST_F(PostRestoreManagedTest, PolicyThatCannotBeLoadedEndsTheRun) {
  fs.keyed_dir("k", 10);
  fs.blockless("k/hole", 100);
  CmdResult r = fs.run({"-r"});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_TRUE(r.err.starts_with("ERROR: Policy file for key 10 does not exist.\n")) << r.err;
  EXPECT_TRUE(r.err.ends_with("Unable to obtain vdpolicy information for directory " +
                              fs.Path("k") + ": VDPOL: ERROR(2): lookup_policy: key = 10\n"))
      << r.err;
  EXPECT_TRUE(fs.Exists("k/hole"));
}

}  // namespace
