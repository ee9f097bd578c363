// Runs the real vdpostrestore (and the kxsim tool) on a private simulated
// file system and hands back what it printed, as strings.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace toolrun {

struct RunResult {
  int status = -1;  // exit status, or 128 + signal number
  std::string out;
  std::string err;
};

struct RunOptions {
  std::map<std::string, std::string> env;  // added to (or replacing) the environment
  std::vector<std::string> unset_env;
  std::string stdin_text;
  bool as_nobody = false;            // drop to uid/gid 65534 before exec
  int max_open_files = 0;            // RLIMIT_NOFILE for the program, when non-zero
  std::vector<std::string> wrapper;  // a command that runs the tool: its argv comes last
};

// Runs argv[0] with argv, capturing standard output and error.
RunResult run_program(const std::vector<std::string> &argv, const RunOptions &opts);

// A temporary directory holding a private simulator configuration and one
// simulated mount, "<dir>/mnt". Removed with everything in it afterwards.
class SimFs {
 public:
  SimFs();
  ~SimFs();
  SimFs(const SimFs &) = delete;
  SimFs &operator=(const SimFs &) = delete;

  const std::filesystem::path &root() const { return root_; }
  const std::string &mnt() const { return mnt_; }
  std::string path(const std::string &rel) const { return mnt_ + "/" + rel; }
  std::string log_path() const { return (root_ / "vdpostrestore.log").string(); }
  std::string request_log_path() const { return (root_ / "requests.log").string(); }

  // Files and directories, relative to the mount point.
  void mkdir(const std::string &rel) const;
  void blockless(const std::string &rel, off_t size) const;  // size, no blocks
  void allocated(const std::string &rel, const std::string &data = "data\n") const;
  void symlink(const std::string &target, const std::string &rel) const;
  // Makes `rel` a storage-manager relation point: "VDEA" plus the create,
  // remove and link events (or only the attribute when with_events is false).
  void relation_point(const std::string &rel, bool with_events = true) const;

  // The policy engine's side. policy(): a policy file (with its data) in
  // the policy directory. keyed_dir(): a directory whose "BFST" names
  // `key`. bfst(): a file's own "BFST" with `blk_flags`. policy_info(): the
  // per-file information the engine leaves (external representations
  // "BLOB", "OBJF", "REPL", "BFST" and event bits 28-30).
  void policy(const std::string &file, const std::string &text) const;
  void keyed_dir(const std::string &rel, uint64_t key) const;
  void bfst(const std::string &rel, uint16_t flags) const;
  void policy_info(const std::string &rel) const;
  // A configuration directory with an "objs.conf" naming objs_id "cloud1"
  // and namespace "bucket1"; pass it as KXFSCONF.
  std::string objs_conf_dir() const;

  // `kxsim ARGS...` with this file system's configuration; fails the test
  // when it does not succeed.
  std::string kxsim(const std::vector<std::string> &args) const;
  // The same for queries: standard output, or "ERROR" when it failed.
  std::string query(const std::vector<std::string> &args) const;

  // vdpostrestore ARGS... under the simulator. Faults and the request log
  // are switched on when given.
  RunResult tool(const std::vector<std::string> &args, const std::string &faults = "",
                 RunOptions opts = {}) const;

  // The log file written by the last run with -f log_path().
  std::string log() const;
  std::string request_log() const;
  bool exists(const std::string &rel) const;

 private:
  std::filesystem::path root_;
  std::string config_;
  std::string mnt_;
};

std::string read_file(const std::string &path);
// A file of `size` bytes without blocks at an absolute path (parents made).
void make_blockless(const std::string &path, off_t size);
std::vector<std::string> lines_of(const std::string &text);
// Lines of `text` that contain `needle`.
std::vector<std::string> grep(const std::string &text, const std::string &needle);
// A wrapper that runs the tool in a private mount namespace after the shell
// command `setup` (a mount), then runs `after`, keeping the tool's status.
// Where no such namespace can be made the run ends with status 99, or with
// unshare's complaint: no_private_mounts() says so, for GTEST_SKIP.
std::vector<std::string> in_private_mounts(const std::string &setup, const std::string &after);
bool no_private_mounts(const RunResult &r);
// The log header for a run on `mnt`.
std::string log_header(const std::string &mnt, bool removed);

}  // namespace toolrun
