// The kxsim tool: registry, state commands, `run`, populate (plain and
// managed: the layouts end-to-end tests compute their expectations from)
// and the check of a populated tree.
#include <algorithm>
#include <filesystem>
#include <fstream>

#include "sim_fixture.h"

namespace kxsim_test {
namespace {

namespace fsys = std::filesystem;

using CliTest = SimTest;

// "<path relative to dir> <allocated blocks>" per regular file, sorted.
std::vector<std::string> files_below(const std::string &dir) {
  std::vector<std::string> lines;
  for (const auto &entry : fsys::recursive_directory_iterator(dir)) {
    struct stat st;
    if (!entry.is_regular_file() || lstat(entry.path().c_str(), &st) != 0) continue;
    lines.push_back(fsys::relative(entry.path(), dir).string() + " " +
                    std::to_string(st.st_blocks));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

TEST_F(CliTest, MkfsNeedsAValidFsidAndKeepsItWhenRegisteringAgain) {
  const std::string x = fs.root() + "/x";
  EXPECT_EQ(1, fs.Kxsim({"mkfs", x, "--fsid", "0"}).exit_code);
  EXPECT_EQ(1, fs.Kxsim({"mkfs", x, "--fsid", "12345678901234567"}).exit_code);
  CmdResult dup = fs.Kxsim({"mkfs", x, "--fsid", "c0ffee01"});
  EXPECT_EQ(1, dup.exit_code);
  EXPECT_NE(std::string::npos, dup.err.find("already used by " + fs.mnt())) << dup.err;
  EXPECT_EQ(0, fs.Kxsim({"mkfs", x}).exit_code);
  Buf before = path_to_handle(fs.mnt());
  sim({"mkfs", fs.mnt(), "--rename-tracking", "off"});
  Buf data(64, 0xAA);
  EXPECT_EQ(0, file_ioctl(fs.mnt(), 0xA1E, data));
  EXPECT_EQ(0u, get<std::uint64_t>(data, 0));
  EXPECT_EQ(before, path_to_handle(fs.mnt()));
}

// Without KXSIM_CONFIG the tool and the preloaded library agree on a
// per-user file; while it does not exist there is no driver, and an empty
// KXSIM_CONFIG switches the simulator off.
TEST_F(CliTest, DefaultConfigurationServesToolAndLibrary) {
  const std::string home = fs.root() + "/home", conf = home + "/.local/state/kxsim/kxsim.conf";
  const std::string env = "env -u KXSIM_CONFIG XDG_STATE_HOME= HOME=" + home + " ";
  const std::string cli = std::string(KXSIM_CLI) + " ";
  const std::string open_device = "cat /dev/kxfsctl0";  // opens only when simulated
  auto sh = [](const std::string &command) {
    return vdtest::RunCommand({"/bin/sh", "-c", command});
  };
  EXPECT_NE(0, sh(env + open_device).exit_code);
  ASSERT_EQ(0, sh(env + cli + "mkfs " + fs.root() + "/y").exit_code);
  EXPECT_NE(std::string::npos, ReadFile(conf).find(fs.root() + "/y"));
  EXPECT_EQ(0, sh(env + open_device).exit_code);
  EXPECT_NE(0, sh("env KXSIM_CONFIG= HOME=" + home + " " + open_device).exit_code);
  CmdResult help = sh(env + cli + "--help");
  EXPECT_NE(std::string::npos, (help.out + help.err).find("here: " + conf)) << help.out;
  const std::string xdg = fs.root() + "/xdg";
  ASSERT_EQ(0,
            sh(env + "XDG_STATE_HOME=" + xdg + " " + cli + "mkfs " + fs.root() + "/z").exit_code);
  EXPECT_NE(std::string::npos, ReadFile(xdg + "/kxsim/kxsim.conf").find(fs.root() + "/z"));
}

TEST_F(CliTest, CorruptConfigurationIsReportedAndSimulatesNothing) {
  std::ofstream(fs.config(), std::ios::app) << "mount nonsense\n";
  CmdResult r = fs.Kxsim({"mkfs", fs.root() + "/x"});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_NE(std::string::npos, r.err.find("line 3: malformed mount entry")) << r.err;
  std::string err = vdtest::StderrOf([&] { EXPECT_EQ(EINVAL, resolve_errno(fs.mnt())); });
  EXPECT_NE(std::string::npos, err.find("unusable configuration")) << err;
}

TEST_F(CliTest, VersionAndUmount) {
  CmdResult r = fs.Kxsim({"--version"});
  EXPECT_EQ(0, r.exit_code);
  EXPECT_EQ(std::string("kxsim ") + KXSIM_VERSION + "\n", r.out);
  sim({"umount", fs.mnt()});
  EXPECT_EQ(EINVAL, resolve_errno(fs.mnt()));
  EXPECT_EQ(1, fs.Kxsim({"umount", fs.mnt()}).exit_code);
}

TEST_F(CliTest, StateCommandsRefuseBadInput) {
  ASSERT_TRUE(fs.WriteFile("f", "data"));
  const std::string f = path("f");
  const std::vector<std::vector<std::string>> refused = {
      {"attr", "set", f, "BFST", "0g"},
      {"attr", "set", f, "TOOLONGNAME", "00"},
      {"attr", "set", f, "BFST", std::string(258, '0')},
      {"attr", "get", f, "BFST"},
      {"attr", "set", fs.config(), "BFST", "00"},  // not in a mount
      {"events", "set", f, "nonsense"},
      {"frobnicate"}};
  for (const auto &args : refused) EXPECT_EQ(1, fs.Kxsim(args).exit_code) << args[0];
  sim({"attr", "set", f, "BFST", "0001"});
  sim({"attr", "rm", f, "BFST"});
  EXPECT_EQ(1, fs.Kxsim({"attr", "rm", f, "BFST"}).exit_code);
}

TEST_F(CliTest, RunSetsTheEnvironment) {
  CmdResult r = fs.Kxsim({"run", "--config", fs.config(), "--", "/bin/sh", "-c",
                          "echo $KXSIM_CONFIG; echo $LD_PRELOAD"});
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_TRUE(r.out.starts_with(fs.config() + "\n")) << r.out;
  EXPECT_NE(std::string::npos, r.out.find("libkxsim.so")) << r.out;
  EXPECT_EQ(1, fs.Kxsim({"run", "--", "/nonexistent/program"}).exit_code);
}

TEST_F(CliTest, PopulateBuildsTheRequestedTreeAndCheckRefusesBlocks) {
  CmdResult r = kxsim("populate " + path("t") + " --dirs 20 --files 100 --blockless 30 --size 512");
  ASSERT_EQ(0, r.exit_code) << r.err;
  EXPECT_NE(std::string::npos, r.out.find(": 100 files (30 blockless), 20 directories\n")) << r.out;
  int dirs = 0, max_depth = 0;
  for (auto it = fsys::recursive_directory_iterator(path("t")); it != decltype(it)(); ++it) {
    dirs += it->is_directory();
    max_depth = std::max(max_depth, it.depth() + 1);
    if (it->is_regular_file()) {
      EXPECT_EQ(512u, it->file_size());
    }
  }
  std::vector<std::string> listing = files_below(path("t"));
  EXPECT_EQ(20, dirs);
  EXPECT_EQ(100u, listing.size());
  EXPECT_EQ(30, std::count_if(listing.begin(), listing.end(),
                              [](const std::string &l) { return l.ends_with(" 0"); }));
  EXPECT_GE(max_depth, 3) << "directories are nested";

  EXPECT_EQ(0, fs.Kxsim({"check", fs.mnt()}).exit_code);
  auto blockless = std::find_if(listing.begin(), listing.end(),
                                [](const std::string &l) { return l.ends_with(" 0"); });
  ASSERT_NE(listing.end(), blockless);
  const std::string victim = path("t/" + blockless->substr(0, blockless->find(' ')));
  std::ofstream(victim) << "data";
  r = fs.Kxsim({"check", fs.mnt()});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_NE(std::string::npos, (r.out + r.err).find(victim)) << r.out << r.err;
}

class ManagedTreeTest : public SimTest {
 protected:
  CmdResult populate(const std::string &rel) {
    return kxsim("populate " + path(rel) +
                 " --managed --dirs 2 --files 10 --blockless 40 --keys 4 --keyed-dirs 2"
                 " --relation-points 1 --managed-files 10 --stored 50 --seed 3");
  }
  // The first file directly in t/<dir> whose name starts with `prefix`.
  std::string first(const std::string &dir, char prefix) {
    for (const std::string &line : files_below(path("t/" + dir))) {
      const std::string name = line.substr(0, line.find(' '));
      if (name[0] == prefix && name.find('/') == std::string::npos)
        return path("t/" + dir + "/" + name);
    }
    return "<none>";
  }
};

// The layout, the policy files and objs.conf, all the same for the same seed.
TEST_F(ManagedTreeTest, LayoutFollowsTheNamingSchemeAndTheSeed) {
  CmdResult r = populate("t");
  ASSERT_EQ(0, r.exit_code) << r.err;
  // 27 managed directories (8 keyed and 1 relation point, each with two
  // below it) of 10 files, 4 of them blockless; 2 of those are stored
  // elsewhere under the deduplicating and the object-store keys.
  EXPECT_EQ("kxsim: populated " + path("t") +
                ": 280 files (112 blockless, 24 stored elsewhere), 29 directories, 8 keyed, "
                "1 relation point, 6 policies\n",
            r.out);
  std::vector<std::string> listing = files_below(path("t"));
  EXPECT_EQ(280u, listing.size());
  for (const std::string &line : listing) {
    if (line.starts_with("d")) continue;  // the plain tree's names tell nothing
    char kind = line[line.rfind('/') + 1];
    EXPECT_EQ(kind != 'f', line.ends_with(" 0")) << line;
    bool keeps_copies = line.starts_with("k102_") || line.starts_with("k103_");
    EXPECT_TRUE(kind != 's' || keeps_copies) << line;
  }
  const std::string zeros36(36, '0');
  EXPECT_EQ("0000000000000065" + std::string(48, '0'),
            fs.Query({"attr", "get", path("t/k101_1"), "BFST"}));
  EXPECT_TRUE(fs.Query({"attr", "get", path("t/k101_1/sub1"), "BFST"}).starts_with("ERROR"))
      << "subdirectories inherit";
  EXPECT_EQ("01", fs.Query({"attr", "get", path("t/rp0"), "VDEA"}));
  EXPECT_EQ("0x1120", fs.Query({"events", "get", path("t/rp0")}));
  const std::string objs_file = first("k103_0", 's'), dedup_file = first("k102_0/sub1", 's');
  EXPECT_EQ("0000000000000067000000000400" + zeros36, fs.Query({"attr", "get", objs_file, "BFST"}));
  EXPECT_EQ("0000000000000066000000000001" + zeros36,
            fs.Query({"attr", "get", dedup_file, "BFST"}));
  EXPECT_EQ("0x70000000", fs.Query({"events", "get", dedup_file}));
  EXPECT_EQ("626c6f62", fs.Query({"rep", "get", dedup_file, "BLOB"}));

  ASSERT_EQ(0, populate("u").exit_code);
  EXPECT_EQ(files_below(path("t")), files_below(path("u"))) << "the same seed builds the same tree";
  const std::string dir = path(".rep_private/config/");
  EXPECT_EQ("trunc_age=30d\n", ReadFile(dir + "global"));
  EXPECT_EQ("objs=on,objs_id=cloud1,objs_namespace=bucket1\n", ReadFile(dir + "key_103"));
  EXPECT_EQ("inherit=shared\n", ReadFile(dir + "key_104"));
  EXPECT_EQ("dedup_pri=5\n", ReadFile(dir + "shared"));
  const std::string conf = fs.config() + ".state/conf";
  EXPECT_NE(std::string::npos, ReadFile(conf + "/objs.conf").find("namespaces=bucket1"));
  vdtest::RunOptions no_conf;
  no_conf.unset_env = {"KXFSCONF"};
  CmdResult run =
      vdtest::RunCommand({KXSIM_CLI, "run", "--", "/bin/sh", "-c", "echo $KXFSCONF"}, no_conf);
  EXPECT_EQ(conf + "\n", run.out);
}

TEST_F(ManagedTreeTest, CheckRefusesAPolicyFileWithoutData) {
  ASSERT_EQ(0, populate("t").exit_code);
  EXPECT_EQ(0, fs.Kxsim({"check", path("t")}).exit_code);
  const std::string policy = path(".rep_private/config/key_102");
  ASSERT_EQ(0, truncate(policy.c_str(), 0));
  ASSERT_EQ(0, truncate(policy.c_str(), 9));  // its size back, but no blocks
  CmdResult r = fs.Kxsim({"check", path("t")});
  EXPECT_EQ(1, r.exit_code);
  EXPECT_NE(std::string::npos, (r.out + r.err).find(policy + ": the policy file has 0 blocks"));
  ASSERT_EQ(0, unlink(policy.c_str()));
  r = fs.Kxsim({"check", fs.mnt()});
  EXPECT_NE(std::string::npos, (r.out + r.err).find(policy + ": the policy file is missing"));
}

}  // namespace
}  // namespace kxsim_test
