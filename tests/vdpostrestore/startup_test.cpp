// Start-up of vdpostrestore: privileges, command line, log file, mount
// point and DMAPI session.
#include <unistd.h>

#include <optional>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::log_header;
using toolrun::RunOptions;
using PostRestoreStartupTest = toolrun::ToolTest;

constexpr char kDefaultLog[] = "/usr/vexo/logs/vdpostrestore.out";

std::string usage_text() {
  return std::string("Usage: vdpostrestore [-f <log file> [-hrv] <mount_point>\n") +
         "-f <log file> specifies alternate file for logging of messages indicating\n"
         "   if a file with no allocation was or was not removed.\n"
         "   Default is " +
         kDefaultLog +
         ".\n"
         "-h print this help and exit.\n"
         "-b keep deduplicated files stored in blockpool.\n"
         "-p preserve vdpolicy information (BLOBs, attributes, event bits)\n"
         "-r remove all files with no allocations under <mount_point>\n"
         "-v be verbose in command output (repeat to increase verbosity)\n"
         "   Normal command output goes to stdout, Error ouptut goes to stderr.\n"
         "\n"
         "Note: Use -r with caution and only under the direction of technical support.\n\n";
}

// Every run that ends before the walk: what it prints, and the log it
// leaves (none at all when nothing may happen before the check).
TEST_F(PostRestoreStartupTest, RunsThatEndBeforeTheWalk) {
  fs.blockless("f", 100);
  fs.allocated("plain");
  const std::string log = fs.log_path(), mnt = fs.mnt(), missing = fs.root() + "/missing/";
  const std::string log1023 = missing + std::string(1023 - missing.size(), 'l');
  const std::string mnt1024 = "/" + std::string(1023, 'm');
  const std::string no_logfile =
      std::string("Failed to open logfile ") + kDefaultLog + ": No such file or directory.\n";
  const std::string refused = "Insufficient administrative privileges.\n";
  const std::string version =
      "vdpostrestore " VD_VERSION
      "\nBuilt for the DMAPI library: KXFS DMAPI (XDSM) API, Release 1.0.\n";
  const std::string plain = fs.Path("plain"), gone = fs.Path("gone");
  const std::string long_log = "Log file name is too long (1024 characters, at most 1023): ";
  const std::string long_mnt = "Mount point is too long (1024 characters, at most 960): ";
  const std::string no_stat =
      "Failed to stat mount point " + gone + ": No such file or directory.\n";
  const std::string no_session = "Failed to init dm session: Function not implemented.\n";
  const std::string not_dir = plain + " is not a directory.\n",
                    no_device = "kind=device,errno=ENOENT";
  const std::string getopt = std::string(VDPOSTRESTORE_BIN) + ": ";
  const std::string long_options =
      "Long options:\n"
      "--jobs=N      read ahead with N threads (1 to 256; default 1). Output, log,\n"
      "              exit status and every change are those of --jobs=1.\n"
      "--progress    show a progress line on standard error (default when it is a\n"
      "              terminal); --no-progress never shows it.\n"
      "--summary     print one line of counts and the elapsed time at the end.\n"
      "--version     print the version and exit.\n";
  auto bad_jobs = [](const std::string &value) {
    return "Invalid --jobs value '" + value + "': give a number of threads from 1 to 256.\n" +
           usage_text();
  };
  auto got = [](const std::string &mount_point) {
    return "Got mount point " + mount_point + ".\n";
  };
  const struct {
    std::vector<std::string> args;
    bool as_nobody;
    int status;
    std::string err, out = "";
    std::optional<std::string> log = {};
    std::string faults = "";
  } cases[] = {
      {{"-h"}, true, 1, refused},
      {{"-f", log, mnt}, true, 1, refused},
      {{"-h"}, false, 0, usage_text()},
      // --help and --version answer anyone, on standard output.
      {{"--help"}, true, 0, "", usage_text() + long_options},
      {{"-r", "--version", mnt}, true, 0, "", version},
      {{"-x", mnt}, false, 1, getopt + "invalid option -- 'x'\n" + usage_text()},
      // The walk's long options: a bad thread count is named, then the usage.
      {{"--jobs=0", mnt}, false, 1, bad_jobs("0")},
      {{"--jobs=257", mnt}, false, 1, bad_jobs("257")},
      {{"-r", "--jobs=8x", mnt}, false, 1, bad_jobs("8x")},
      {{"--jobs", mnt}, false, 1, bad_jobs("")},
      {{"--summary", "--jobs=-1", mnt}, false, 1, bad_jobs("-1")},
      {{mnt, "-f"}, false, 1, getopt + "option requires an argument -- 'f'\n" + usage_text()},
      {{}, false, 1, usage_text()},
      {{"-v", "-r"}, false, 1, usage_text()},
      {{""}, false, 1, usage_text()},
      // The log's name is bounded by the tool's 1024-byte buffer, and an
      // unopenable one is named by the default path.
      {{"-f", log1023, mnt}, false, 1, no_logfile, got(mnt)},
      {{"-f", log1023 + "l", mnt}, false, 1, long_log + log1023 + "l\n"},
      {{"-f", fs.root() + "/other.log", mnt1024}, false, 1, long_mnt + mnt1024 + "\n"},
      {{"-f", log, plain}, false, 1, not_dir, got(plain), log_header(plain, false)},
      {{"-r", "-f", log, gone}, false, 1, no_stat, got(gone), log_header(gone, true)},
      {{"-f", log, mnt}, false, 1, no_session, got(mnt), log_header(mnt, false), no_device},
  };
  for (const auto &c : cases) {
    std::string name;
    for (const auto &arg : c.args) name += arg.substr(0, 40) + " ";
    if (c.as_nobody && geteuid() != 0) continue;  // needs root to drop to another user
    std::remove(log.c_str());
    RunOptions opts;
    opts.as_nobody = c.as_nobody;
    CmdResult r = fs.tool(c.args, c.faults, opts);
    EXPECT_EQ(c.status, r.exit_code) << name;
    EXPECT_EQ(c.out, r.out) << name;
    EXPECT_EQ(c.err, r.err) << name;
    EXPECT_EQ(c.log.value_or("<none>"), std::filesystem::exists(log) ? fs.log() : "<none>") << name;
  }
}

}  // namespace
