// The tool on a file system the policy engine manages: policy information
// stripped where no copy is held elsewhere, files kept when their data is in
// object storage or the blockpool, the operator's question, policies that
// cannot be loaded, and relation points inside managed directories.
#include <algorithm>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::grep;
using toolrun::log_header;
using toolrun::RunOptions;
using toolrun::ToolFs;

class PostRestoreManagedTest : public toolrun::ToolTest {
 protected:
  // The log's file lines, in the order written.
  std::string logged(bool removed = false) const {
    const std::string log = fs.log();
    const std::string header = log_header(fs.mnt(), removed);
    EXPECT_EQ(header, log.substr(0, header.size()));
    return log.substr(std::min(header.size(), log.size()));
  }
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

// Under a relation point nothing is asked of a file at all.
TEST_F(PostRestoreManagedTest, KeyPolicyInformationIsStrippedOutsideRelationPoints) {
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir("k", 7);
  fs.sim({"events", "set", fs.Path("k"), "0x70000000"});
  for (const char *rel : {"k/hole", "k/rp/f"}) {
    fs.blockless(rel, 100);
    fs.policy_info(rel);
  }
  fs.allocated("k/full");
  fs.policy_info("k/full");
  fs.blockless("k/sub/deep", 10);
  fs.relation_point("k/rp");
  fs.blockless("k/rp/sub/g", 100);
  CmdResult r = fs.tool({"-r", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  const std::string files = logged(true);
  EXPECT_EQ(2u, std::count(files.begin(), files.end(), '\n')) << files;
  EXPECT_NE(std::string::npos, files.find(fs.Path("k/hole") + "\n"));
  EXPECT_NE(std::string::npos, files.find(fs.Path("k/sub/deep") + "\n"));
  EXPECT_FALSE(fs.Exists("k/hole"));
  EXPECT_FALSE(has_policy_info("k/full"));
  EXPECT_FALSE(has_bfst("k"));
  EXPECT_EQ("0x70000000", fs.Query({"events", "get", fs.Path("k")})) << "directories keep events";
  EXPECT_TRUE(fs.Exists("k/rp/f"));
  EXPECT_TRUE(has_policy_info("k/rp/f"));
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("k/rp/f")}).empty());
  EXPECT_TRUE(fs.LogLinesWith({fs.Path("k/rp/sub/g")}).empty());
}

TEST_F(PostRestoreManagedTest, PreserveOptionAndKeyZeroStripNothing) {
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir("k", 7);
  fs.keyed_dir("g", 0);  // the file system's "global" policy
  for (const char *rel : {"k/full", "g/full"}) {
    fs.allocated(rel);
    fs.policy_info(rel);
  }
  fs.blockless("g/hole", 100);
  CmdResult r = fs.tool({"-p", "-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(has_policy_info("k/full"));
  r = fs.tool({"-f", fs.log_path(), fs.mnt()});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(has_policy_info("g/full"));
  EXPECT_TRUE(has_bfst("g"));
  EXPECT_EQ(fs.Path("g/hole") + "\n", logged());
}

// Under an object-store policy a blockless file goes only when its own
// "BFST" does not show a stored copy; nothing is stripped there.
TEST_F(PostRestoreManagedTest, ObjectStoreFilesAreKeptByTheirFlags) {
  fs.policy("key_8", "objs=on,objs_id=cloud1,objs_namespace=bucket1\n");
  fs.keyed_dir("w", 8);
  fs.blockless("w/stored", 100);
  fs.bfst("w/stored", 0x0400);
  fs.blockless("w/plain", 100);
  fs.bfst("w/plain", 0);
  fs.blockless("w/noattr", 100);
  RunOptions opts;
  opts.env["KXFSCONF"] = fs.objs_conf_dir();
  CmdResult r = fs.tool({"-vv", "-f", fs.log_path(), fs.mnt()}, "", opts);
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("Unable to obtain BFST EA for vdpolicyd managed file " + fs.Path("w/noattr") +
                ": No data available\n",
            r.err);
  EXPECT_EQ(1u, grep(r.out, "  Truncated file stored to WAS, Skipping").size());
  EXPECT_EQ(1u, grep(r.out, "  Truncated file under WAS policy, but not stored to WAS.").size());
  const std::string files = logged();
  EXPECT_NE(std::string::npos, files.find(fs.Path("w/plain") + "\n"));
  EXPECT_NE(std::string::npos, files.find(fs.Path("w/noattr") + "\n"));
  EXPECT_EQ(std::string::npos, files.find(fs.Path("w/stored")));
  EXPECT_TRUE(has_bfst("w/stored"));
}

// The question is asked once however many directories deduplicate, and
// its answer decides for the files whose copy is in the blockpool.
TEST_F(PostRestoreManagedTest, DedupQuestionDecidesOnceForBlockpoolFiles) {
  const std::string question = "do you wish to keep them (<y>/n)?";
  const struct {
    std::vector<std::string> options;
    const char *answer;
    size_t asked;
    bool keep;
  } cases[] = {{{}, "", 1, true}, {{"-b"}, "n\n", 0, true}, {{}, "no\n", 1, false}};
  for (const auto &c : cases) {
    ToolFs managed;  // a run that does not keep strips the files' "BFST"
    managed.policy("key_9", "dedup=on\n");
    for (const char *dir : {"d1", "d2"}) {
      managed.keyed_dir(dir, 9);
      managed.blockless(std::string(dir) + "/pooled", 100);
      managed.bfst(std::string(dir) + "/pooled", 0x0001);
      managed.blockless(std::string(dir) + "/lost", 100);
    }
    std::vector<std::string> args = c.options;
    args.insert(args.end(), {"-f", managed.log_path(), managed.mnt()});
    RunOptions opts;
    opts.stdin_text = c.answer;
    CmdResult r = managed.tool(args, "", opts);
    ASSERT_EQ(0, r.exit_code) << r.err;
    EXPECT_EQ(c.asked, grep(r.out, question).size()) << "answer '" << c.answer << "'";
    const std::string log = managed.log();
    EXPECT_EQ(!c.keep, log.find(managed.Path("d1/pooled")) != std::string::npos)
        << "answer '" << c.answer << "'";
    EXPECT_NE(std::string::npos, log.find(managed.Path("d2/lost")))
        << "answer '" << c.answer << "'";
  }
}

// A directory whose policy cannot be loaded ends the run before anything
// under it is touched; the library's reason is logged above the message.
TEST_F(PostRestoreManagedTest, PolicyThatCannotBeLoadedEndsTheRun) {
  const struct {
    const char *text;  // null: no file; "": a file without blocks
    const char *reason;
  } cases[] = {
      {nullptr, "ERROR: Policy file for key 10 does not exist.\n"},
      {"", "ERROR: Policy file for key 10 is truncated.\n"},
      {"dedup_pri=1000\n", "ERROR: Policy syntax error line 1 for key: 10: Parameter"},
      {"trunc_low_water=50,trunc_high_water=50\n",
       "Reason: the high watermark must be greater than the low watermark"},
  };
  for (const auto &c : cases) {
    ToolFs managed;
    if (c.text != nullptr && c.text[0] == '\0')
      managed.blockless(".rep_private/config/key_10", 100);
    else if (c.text != nullptr)
      managed.policy("key_10", c.text);
    managed.keyed_dir("k", 10);
    managed.blockless("k/hole", 100);
    CmdResult r = managed.tool({"-r", "-f", managed.log_path(), managed.mnt()});
    EXPECT_EQ(1, r.exit_code);
    EXPECT_NE(std::string::npos, r.err.find(c.reason)) << r.err;
    const std::string last = "Unable to obtain vdpolicy information for directory " +
                             managed.Path("k") + ": VDPOL: ERROR(2): lookup_policy: key = 10\n";
    ASSERT_GE(r.err.size(), last.size());
    EXPECT_EQ(last, r.err.substr(r.err.size() - last.size()));
    EXPECT_TRUE(managed.Exists("k/hole"));
  }
}

// Each failed strip request is reported, and the rest of the work goes on.
TEST_F(PostRestoreManagedTest, FailedStripRequestsAreReportedAndPassedOver) {
  fs.policy("key_7", "trunc=on\n");
  fs.keyed_dir("k", 7);
  fs.blockless("k/hole", 100);
  fs.policy_info("k/hole");
  CmdResult r = fs.tool({"-f", fs.log_path(), fs.mnt()},
                        "kind=ioctl,code=1058,path=/k/hole,errno=EIO;"
                        "kind=ioctl,code=1062,path=/k/hole,errno=EIO");
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ(1u, grep(r.out,
                     "remove_vdpolicy_info: dm_remove_dmattr failed for BFST, errno=5: "
                     "Input/output error")
                    .size());
  EXPECT_EQ(1u, grep(r.out, "remove_vdpolicy_info: Cannot dm_update_eventlist  " +
                                fs.Path("k/hole") + ", errno=5: Input/output error")
                    .size());
  EXPECT_EQ(fs.Path("k/hole") + "\n", logged());
}

}  // namespace
