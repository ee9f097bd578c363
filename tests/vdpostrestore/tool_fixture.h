// Runs the real vdpostrestore on a private simulated file system and hands
// back what it printed, as strings; builds what the policy engine leaves on
// a file system for it to find.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/sim_fs.h"

namespace toolrun {

using vdtest::CmdResult;
using vdtest::RunOptions;

// Lines of `text` that contain `needle`.
inline std::vector<std::string> grep(const std::string &text, const std::string &needle) {
  std::vector<std::string> hits;
  for (auto &line : vdtest::SplitLines(text)) {
    if (line.find(needle) != std::string::npos) hits.push_back(line);
  }
  return hits;
}

inline std::vector<std::string> sorted(std::vector<std::string> v) {
  std::sort(v.begin(), v.end());
  return v;
}

// The log header for a run on `mnt`.
inline std::string log_header(const std::string &mnt, bool removed) {
  return "Files with no allocated blocks in non-managed directories under " + mnt +
         ".\nThese files " + (removed ? "were" : "were not") + " removed.\n\n";
}

// A wrapper that runs the tool in a private mount namespace after the shell
// command `setup` (a mount), then runs `after`, keeping the tool's status.
// Where no such namespace can be made the run ends with status 99, or with
// unshare's complaint: no_private_mounts() says so, for GTEST_SKIP.
inline std::vector<std::string> in_private_mounts(const std::string &setup,
                                                  const std::string &after) {
  const std::string script = setup + " || exit 99; \"$@\"; rc=$?; " + after + "; exit $rc";
  return {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c", script, "sh"};
}
inline bool no_private_mounts(const CmdResult &r) {
  return r.exit_code == 99 || (r.exit_code != 1 && r.err.find("unshare") != std::string::npos);
}

class ToolFs : public vdtest::SimFs {
 public:
  std::string log_path() const { return root() + "/vdpostrestore.log"; }
  // The log file written by the last run with -f log_path().
  std::string log() const { return vdtest::ReadFile(log_path()); }
  // The file paths that log lists after its header, sorted.
  std::vector<std::string> logged(bool removed = false) const {
    const std::string text = log(), header = log_header(mnt(), removed);
    EXPECT_EQ(header, text.substr(0, header.size()));
    return sorted(vdtest::SplitLines(text.substr(std::min(header.size(), text.size()))));
  }

  void blockless(const std::string &rel, off_t size) const {
    ASSERT_TRUE(MakeFile(rel, size, false)) << rel;
  }
  void allocated(const std::string &rel, const std::string &data = "data\n") const {
    ASSERT_TRUE(WriteFile(rel, data)) << rel;
  }
  // `kxsim ARGS...`, which must succeed.
  void sim(const std::vector<std::string> &args) const {
    CmdResult r = Kxsim(args);
    ASSERT_EQ(0, r.exit_code) << "kxsim failed: " << r.err;
  }

  // A storage-manager relation point: "VDEA" plus the create, remove and
  // link events (or only the attribute).
  void relation_point(const std::string &rel, bool with_events = true) const {
    ASSERT_TRUE(MakeDir(rel));
    sim({"attr", "set", Path(rel), "VDEA", "0102030405060708"});
    if (with_events) sim({"events", "set", Path(rel), "0x1120"});
  }
  // A policy file (with its data) in the policy directory.
  void policy(const std::string &file, const std::string &text) const {
    allocated(".rep_private/config/" + file, text);
  }
  // A directory whose "BFST" names `key`.
  void keyed_dir(const std::string &rel, uint64_t key) const {
    ASSERT_TRUE(MakeDir(rel));
    sim({"attr", "set", Path(rel), "BFST", bfst_hex(key, 0)});
  }
  // A file's own "BFST" with `blk_flags`.
  void bfst(const std::string &rel, uint16_t flags) const {
    sim({"attr", "set", Path(rel), "BFST", bfst_hex(0, flags)});
  }
  // The per-file information the engine leaves: external representations
  // "BLOB", "OBJF", "REPL", "BFST" and event bits 28-30.
  void policy_info(const std::string &rel) const {
    for (const char *rep : {"BLOB", "OBJF", "REPL"}) sim({"rep", "set", Path(rel), rep, "0a0b"});
    sim({"attr", "set", Path(rel), "BFST", bfst_hex(0, 0)});
    sim({"events", "set", Path(rel), "0x70000000"});
  }
  // A configuration directory naming objs_id "cloud1" and namespace
  // "bucket1"; pass it as KXFSCONF.
  std::string objs_conf_dir() const {
    const std::string dir = root() + "/conf";
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/objs.conf")
        << "objs_id=cloud1,provider=AmazonS3,access_host_ports=localhost:9000\n"
           "namespaces=bucket1\n";
    return dir;
  }

  // vdpostrestore ARGS... under the simulator, logging its requests; with
  // fault rules when given.
  CmdResult tool(const std::vector<std::string> &args, const std::string &faults = "",
                 RunOptions opts = {}, const std::vector<std::string> &wrapper = {}) const {
    std::vector<std::string> argv = wrapper;
    argv.push_back(VDPOSTRESTORE_BIN);
    argv.insert(argv.end(), args.begin(), args.end());
    opts.env["KXSIM_CONFIG"] = config();
    opts.env["KXSIM_LOG"] = LogPath();
    if (!faults.empty()) opts.env["KXSIM_FAULTS"] = faults;
    std::remove(LogPath().c_str());
    return vdtest::RunCommand(argv, opts);
  }
  // vdpostrestore OPTIONS... -f log_path() mnt().
  CmdResult run(std::vector<std::string> options = {}, const std::string &faults = "",
                const RunOptions &opts = {}, const std::vector<std::string> &wrapper = {}) const {
    options.insert(options.end(), {"-f", log_path(), mnt()});
    return tool(options, faults, opts, wrapper);
  }

 private:
  // "BFST": the key in bytes 0-7 and blk_flags in bytes 12-13, big-endian.
  static std::string bfst_hex(uint64_t key, uint16_t flags) {
    char hex[65];
    std::snprintf(hex, sizeof hex, "%016llx%08x%04x%036x", static_cast<unsigned long long>(key), 0u,
                  static_cast<unsigned>(flags), 0u);
    return hex;
  }
};

class ToolTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ("", fs.error()); }
  ToolFs fs;
};

}  // namespace toolrun
