// Runs the real vdpostrestore on a private simulated file system.
#include "tool_harness.h"

#include <fcntl.h>
#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace toolrun {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void child_exec(const std::vector<std::string> &argv, const RunOptions &opts,
                             const fs::path &run_dir, int in_fd, int out_fd, int err_fd) {
  dup2(in_fd, 0);
  dup2(out_fd, 1);
  dup2(err_fd, 2);
  for (const auto &name : opts.unset_env) unsetenv(name.c_str());
  for (const auto &[name, value] : opts.env) setenv(name.c_str(), value.c_str(), 1);
  // In a coverage build the profile of a run as nobody could not be written
  // beside the build's own; it goes to this run's own directory, fresh each
  // time, so that a profile of an older build cannot clash with it.
  if (opts.as_nobody) setenv("GCOV_PREFIX", (run_dir / "gcov").c_str(), 1);
  if (opts.as_nobody && (setgroups(0, nullptr) != 0 || setresgid(65534, 65534, 65534) != 0 ||
                         setresuid(65534, 65534, 65534) != 0)) {
    _exit(126);
  }
  if (opts.max_open_files > 0) {
    rlimit limit{static_cast<rlim_t>(opts.max_open_files),
                 static_cast<rlim_t>(opts.max_open_files)};
    if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(125);
  }
  std::vector<char *> args;
  for (const auto &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  execv(args[0], args.data());
  _exit(127);
}

std::string temp_file_with(const fs::path &dir, const std::string &name, const std::string &text) {
  std::string path = (dir / name).string();
  std::ofstream(path) << text;
  return path;
}

}  // namespace

std::string read_file(const std::string &path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

RunResult run_program(const std::vector<std::string> &argv, const RunOptions &opts) {
  char dir_template[] = "/tmp/vdrun.XXXXXX";
  const char *dir = mkdtemp(dir_template);
  if (dir == nullptr) return {};
  fs::path tmp(dir);
  if (opts.as_nobody) {
    fs::permissions(tmp, fs::perms::others_exec, fs::perm_options::add);
    fs::create_directory(tmp / "gcov");
    fs::permissions(tmp / "gcov", fs::perms::all);
  }
  std::string in_path = temp_file_with(tmp, "in", opts.stdin_text);
  std::string out_path = (tmp / "out").string(), err_path = (tmp / "err").string();
  int in_fd = open(in_path.c_str(), O_RDONLY | O_CLOEXEC);
  int out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  int err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  RunResult result;
  pid_t pid = fork();
  if (pid == 0) child_exec(argv, opts, tmp, in_fd, out_fd, err_fd);
  close(in_fd);
  close(out_fd);
  close(err_fd);
  int wstatus = 0;
  if (pid > 0 && waitpid(pid, &wstatus, 0) == pid) {
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
  }
  result.out = read_file(out_path);
  result.err = read_file(err_path);
  fs::remove_all(tmp);
  return result;
}

SimFs::SimFs() {
  char dir_template[] = "/tmp/vdsim.XXXXXX";
  const char *dir = mkdtemp(dir_template);
  if (dir == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = fs::canonical(dir);
  // Let an unprivileged run reach the mount point.
  fs::permissions(root_, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
  config_ = (root_ / "kxsim.conf").string();
  mnt_ = (root_ / "mnt").string();
  kxsim({"mkfs", mnt_});
}

SimFs::~SimFs() {
  std::error_code ec;
  fs::remove_all(root_, ec);
}

void SimFs::mkdir(const std::string &rel) const {
  fs::create_directories(path(rel));
}

void make_blockless(const std::string &path, off_t size) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path).close();
  fs::resize_file(path, static_cast<std::uintmax_t>(size));
}

void SimFs::blockless(const std::string &rel, off_t size) const {
  make_blockless(path(rel), size);
}

void SimFs::allocated(const std::string &rel, const std::string &data) const {
  fs::create_directories(fs::path(path(rel)).parent_path());
  std::ofstream(path(rel)) << data;
  // A file system that keeps tiny files inside the inode would report no
  // blocks, and the tool would rightly call the file restored: say so here
  // rather than in a puzzling assertion on the tool's output.
  struct stat st {};
  ASSERT_EQ(0, ::stat(path(rel).c_str(), &st)) << path(rel);
  if (!data.empty()) {
    ASSERT_GT(st.st_blocks, 0)
        << path(rel) << ": /tmp is on a file system that stores small files without blocks";
  }
}

void SimFs::symlink(const std::string &target, const std::string &rel) const {
  fs::create_symlink(target, path(rel));
}

void SimFs::relation_point(const std::string &rel, bool with_events) const {
  mkdir(rel);
  kxsim({"attr", "set", path(rel), "VDEA", "0102030405060708"});
  if (with_events) kxsim({"events", "set", path(rel), "0x1120"});
}

void SimFs::policy(const std::string &file, const std::string &text) const {
  allocated(".rep_private/config/" + file, text);
}

namespace {

// "BFST": the key in bytes 0-7 and blk_flags in bytes 12-13, big-endian.
std::string bfst_hex(uint64_t key, uint16_t flags) {
  char hex[65];
  std::snprintf(hex, sizeof hex, "%016llx%08x%04x%036x", static_cast<unsigned long long>(key), 0u,
                static_cast<unsigned>(flags), 0u);
  return hex;
}

}  // namespace

void SimFs::keyed_dir(const std::string &rel, uint64_t key) const {
  mkdir(rel);
  kxsim({"attr", "set", path(rel), "BFST", bfst_hex(key, 0)});
}

void SimFs::bfst(const std::string &rel, uint16_t flags) const {
  kxsim({"attr", "set", path(rel), "BFST", bfst_hex(0, flags)});
}

void SimFs::policy_info(const std::string &rel) const {
  for (const char *rep : {"BLOB", "OBJF", "REPL"}) kxsim({"rep", "set", path(rel), rep, "0a0b"});
  kxsim({"attr", "set", path(rel), "BFST", bfst_hex(0, 0)});
  kxsim({"events", "set", path(rel), "0x70000000"});
}

std::string SimFs::objs_conf_dir() const {
  const fs::path dir = root_ / "conf";
  fs::create_directories(dir);
  std::ofstream(dir / "objs.conf")
      << "objs_id=cloud1,provider=AmazonS3,access_host_ports=localhost:9000\n"
         "namespaces=bucket1\n";
  return dir.string();
}

namespace {

RunResult run_kxsim(const std::string &config, const std::vector<std::string> &args) {
  std::vector<std::string> argv{KXSIM_CLI};
  argv.insert(argv.end(), args.begin(), args.end());
  RunOptions opts;
  opts.env["KXSIM_CONFIG"] = config;
  opts.unset_env = {"KXSIM_FAULTS", "KXSIM_LOG"};
  return run_program(argv, opts);
}

}  // namespace

std::string SimFs::kxsim(const std::vector<std::string> &args) const {
  RunResult r = run_kxsim(config_, args);
  EXPECT_EQ(0, r.status) << "kxsim failed: " << r.err;
  return r.out;
}

std::string SimFs::query(const std::vector<std::string> &args) const {
  RunResult r = run_kxsim(config_, args);
  if (r.status != 0) return "ERROR";
  while (!r.out.empty() && (r.out.back() == '\n' || r.out.back() == ' ')) r.out.pop_back();
  return r.out;
}

RunResult SimFs::tool(const std::vector<std::string> &args, const std::string &faults,
                      RunOptions opts) const {
  std::vector<std::string> argv = opts.wrapper;
  argv.push_back(VDPOSTRESTORE_BIN);
  argv.insert(argv.end(), args.begin(), args.end());
  opts.env["KXSIM_CONFIG"] = config_;
  opts.env["KXSIM_LOG"] = request_log_path();
  if (faults.empty()) {
    opts.unset_env.push_back("KXSIM_FAULTS");
  } else {
    opts.env["KXSIM_FAULTS"] = faults;
  }
  std::remove(request_log_path().c_str());
  return run_program(argv, opts);
}

std::string SimFs::log() const {
  return read_file(log_path());
}
std::string SimFs::request_log() const {
  return read_file(request_log_path());
}

bool SimFs::exists(const std::string &rel) const {
  struct stat st;
  return lstat(path(rel).c_str(), &st) == 0;
}

std::vector<std::string> lines_of(const std::string &text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> grep(const std::string &text, const std::string &needle) {
  std::vector<std::string> hits;
  for (auto &line : lines_of(text)) {
    if (line.find(needle) != std::string::npos) hits.push_back(line);
  }
  return hits;
}

std::vector<std::string> in_private_mounts(const std::string &setup, const std::string &after) {
  return {"/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh", "-c",
          setup + " || exit 99; \"$@\"; rc=$?; " + after + "; exit $rc", "sh"};
}

bool no_private_mounts(const RunResult &r) {
  return r.status == 99 || (r.status != 1 && r.err.find("unshare") != std::string::npos);
}

std::string log_header(const std::string &mnt, bool removed) {
  return "Files with no allocated blocks in non-managed directories under " + mnt +
         ".\nThese files " + (removed ? "were" : "were not") + " removed.\n\n";
}

}  // namespace toolrun
