#include "libutil/getroot.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using vdtest::ChildResult;
using vdtest::RunInChild;

struct EnvVar {
  const char *name;
  const char *value;  // null: unset
};

void PrintAll() {
  std::printf(
      "root=%s\nconfig=%s\nlogs=%s\ndata=%s\ndebug=%s\nras=%s\nzestats=%s\n"
      "bin=%s\nhelp=%s\nlib=%s\noem=%s\ninstall=%s\nldap=%s\n",
      GetKxfsRoot(), GetKxfsConfigDir(), GetKxfsLogRoot(), GetKxfsDataDir(), GetKxfsDebugDir(),
      GetKxfsRasDir(), GetKxfsZestatsDir(), GetKxfsBinDir(), GetKxfsHelpDir(), GetKxfsLibDir(),
      GetKxfsOemDir(), GetKxfsInstallDir(), GetKxfsLdapDir());
}

// The table resolves once per process, so every case gets a fresh child.
ChildResult Resolve(std::vector<EnvVar> env, const std::function<void()> &body = PrintAll) {
  return RunInChild([&] {
    for (const char *name : {"KXFSROOT", "KXFSCONF", "KXFSLOGS"}) unsetenv(name);
    for (const auto &v : env) {
      if (v.value != nullptr) setenv(v.name, v.value, 1);
    }
    body();
  });
}

// What PrintAll shows for an installation root, log root and configuration
// directory.
std::string Expected(const std::string &root, const std::string &logs, const std::string &conf) {
  return "root=" + root + "\nconfig=" + conf + "\nlogs=" + logs + "\ndata=" + logs +
         "/data\ndebug=" + logs + "/debug\nras=" + logs + "/ras\nzestats=" + logs +
         "/zestats\nbin=" + root + "/bin\nhelp=" + root + "/help\nlib=" + root +
         "/lib\noem=" + conf + "/oem\ninstall=" + root + "/install\nldap=" + logs + "/ldap\n";
}

TEST(GetRootTest, DefaultsAndEachVariableMovesItsSubtree) {
  auto r = Resolve({});
  ASSERT_TRUE(r.exited_with(0)) << r.err;
  EXPECT_EQ(Expected("/usr/kxfs", "/usr/kxfs", "/usr/kxfs/config"), r.out);
  EXPECT_EQ("", r.err);
  r = Resolve({{"KXFSROOT", "/opt/x"}, {"KXFSLOGS", "/var/x"}, {"KXFSCONF", "/etc/x"}});
  EXPECT_EQ(Expected("/opt/x", "/var/x", "/etc/x"), r.out);
  // An empty variable is used as it is.
  EXPECT_EQ(Expected("", "", "/config"), Resolve({{"KXFSROOT", ""}}).out);
}

TEST(GetRootTest, OverlongJoinIsCutAndReported) {
  const std::string root(250, 'r');
  auto r = Resolve({{"KXFSROOT", root.c_str()}, {"KXFSLOGS", "/l"}}, [] {
    std::printf("%s|%s|%s", GetKxfsConfigDir(), GetKxfsBinDir(), GetKxfsHelpDir());
  });
  const std::string config = (root + "/config").substr(0, 255);
  EXPECT_EQ(config + "|" + root + "/bin|" + root + "/help", r.out);
  // Only the joins longer than 255 characters: config, oem (under the cut
  // config) and install.
  EXPECT_EQ("Pathname too long: " + root + "/config: truncated to " + config + "\n" +
                "Pathname too long: " + config + "/oem: truncated to " + config + "\n" +
                "Pathname too long: " + root + "/install: truncated to " +
                (root + "/install").substr(0, 255) + "\n",
            r.err);
}

TEST(GetRootTest, ResolvedOnceLaterEnvironmentIgnored) {
  auto r = Resolve({{"KXFSROOT", "/a"}}, [] {
    const char *first = GetKxfsBinDir();
    setenv("KXFSROOT", "/b", 1);
    setenv("KXFSLOGS", "/c", 1);
    initialize_roots();
    std::printf("%s %s %s %d", GetKxfsRoot(), GetKxfsBinDir(), GetKxfsRasDir(),
                first == GetKxfsBinDir());
  });
  EXPECT_EQ("/a /a/bin /a/ras 1", r.out);
}

TEST(GetRootTest, ConcurrentFirstUseAgrees) {
  auto r = Resolve({{"KXFSLOGS", "/logs"}}, [] {
    std::vector<const char *> seen(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&seen, i] { seen[i] = GetKxfsDebugDir(); });
    }
    for (auto &t : threads) t.join();
    for (const char *s : seen) std::printf("%s %d\n", s, s == seen[0]);
  });
  EXPECT_EQ("/logs/debug 1\n/logs/debug 1\n/logs/debug 1\n/logs/debug 1\n", r.out);
  EXPECT_EQ("", r.err);  // a race report would land here
}

}  // namespace
