// `kxsim populate --managed`: the layout that end-to-end tests compute their
// expectations from, and `kxsim check` on such a tree.
#include <algorithm>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

class ManagedTreeTest : public SimTest {
 protected:
  static constexpr const char *kOptions =
      " --managed --dirs 2 --files 10 --blockless 40 --keys 4 --keyed-dirs 2"
      " --relation-points 1 --managed-files 10 --stored 50 --seed 3";

  // "<path relative to dir> <allocated blocks>" per regular file, sorted.
  std::vector<std::string> files(const std::string &dir) {
    CmdResult r = sh("find " + dir + " -type f -printf '%P %b\\n' | sort");
    std::vector<std::string> lines;
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  // The first path below t matching a shell pattern.
  std::string first(const std::string &pattern) {
    std::string out = sh("cd " + path("t") + " && ls -d " + pattern + " | head -n 1").out;
    return out.empty() ? out : out.substr(0, out.size() - 1);
  }
  std::string get(const std::string &what, const std::string &rel, const std::string &name = "") {
    CmdResult r = cli(what + " get " + path(rel) + (name.empty() ? "" : " " + name));
    return r.status == 0 ? r.out : "ERROR";
  }
};

TEST_F(ManagedTreeTest, LayoutFollowsTheNamingScheme) {
  CmdResult r = cli("populate " + path("t") + kOptions);
  ASSERT_EQ(0, r.status) << r.out;
  // 27 managed directories (8 keyed and 1 relation point, each with two
  // below it) of 10 files, 4 of them blockless; 2 of those are stored
  // elsewhere under the deduplicating and the object-store keys.
  EXPECT_EQ("kxsim: populated " + path("t") +
                ": 280 files (112 blockless, 24 stored elsewhere), 29 directories, 8 keyed, "
                "1 relation point, 6 policies\n",
            r.out);
  std::vector<std::string> listing = files(path("t"));
  EXPECT_EQ(280u, listing.size());
  for (const std::string &line : listing) {
    if (line.starts_with("d")) continue;  // the plain tree's names tell nothing
    char kind = line[line.rfind('/') + 1];
    EXPECT_EQ(kind != 'f', line.ends_with(" 0")) << line;
    bool keeps_copies = line.starts_with("k102_") || line.starts_with("k103_");
    EXPECT_TRUE(kind != 's' || keeps_copies) << line;
  }
  EXPECT_EQ("0000000000000065" + std::string(48, '0') + "\n", get("attr", "t/k101_1", "BFST"));
  EXPECT_EQ("ERROR", get("attr", "t/k101_1/sub1", "BFST")) << "subdirectories inherit";
  EXPECT_EQ("01\n", get("attr", "t/rp0", "VDEA"));
  EXPECT_EQ("0x1120\n", get("events", "t/rp0"));
  std::string objs_file = first("k103_0/s*"), dedup_file = first("k102_0/sub1/s*");
  ASSERT_FALSE(objs_file.empty() || dedup_file.empty());
  EXPECT_EQ("0000000000000067000000000400" + std::string(36, '0') + "\n",
            get("attr", "t/" + objs_file, "BFST"));
  EXPECT_EQ("0000000000000066000000000001" + std::string(36, '0') + "\n",
            get("attr", "t/" + dedup_file, "BFST"));
  EXPECT_EQ("0x70000000\n", get("events", "t/" + dedup_file));
  EXPECT_EQ("626c6f62\n", get("rep", "t/" + dedup_file, "BLOB"));
}

TEST_F(ManagedTreeTest, PoliciesAndObjsConfAreWrittenAndRepeatable) {
  ASSERT_EQ(0, cli("populate " + path("t") + kOptions).status);
  ASSERT_EQ(0, cli("populate " + path("u") + kOptions).status);
  EXPECT_EQ(files(path("t")), files(path("u"))) << "the same seed builds the same tree";
  const std::string dir = path(".rep_private/config/");
  EXPECT_EQ("trunc_age=30d\n", read_text(dir + "global"));
  EXPECT_EQ("objs=on,objs_id=cloud1,objs_namespace=bucket1\n", read_text(dir + "key_103"));
  EXPECT_EQ("inherit=shared\n", read_text(dir + "key_104"));
  EXPECT_EQ("dedup_pri=5\n", read_text(dir + "shared"));
  const std::string conf = config_ + ".state/conf";
  EXPECT_NE(std::string::npos, read_text(conf + "/objs.conf").find("namespaces=bucket1"));
  CmdResult run =
      sh("env -u KXFSCONF " + std::string(KXSIM_CLI) + " run -- sh -c 'echo $KXFSCONF'");
  EXPECT_EQ(conf + "\n", run.out);
}

TEST_F(ManagedTreeTest, CheckRefusesAPolicyFileWithoutData) {
  ASSERT_EQ(0, cli("populate " + path("t") + kOptions).status);
  EXPECT_EQ(0, cli("check " + path("t")).status);
  const std::string policy = path(".rep_private/config/key_102");
  ASSERT_EQ(0, truncate(policy.c_str(), 0));
  ASSERT_EQ(0, truncate(policy.c_str(), 9));  // its size back, but no blocks
  CmdResult r = cli("check " + path("t"));
  EXPECT_EQ(1, r.status);
  EXPECT_NE(std::string::npos, r.out.find(policy + ": the policy file has 0 blocks")) << r.out;
  ASSERT_EQ(0, unlink(policy.c_str()));
  EXPECT_NE(std::string::npos,
            cli("check " + mnt_).out.find(policy + ": the policy file is missing"));
}

}  // namespace
}  // namespace kxsim_test
