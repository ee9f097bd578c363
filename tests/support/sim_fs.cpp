#include "support/sim_fs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace vdtest {

namespace {

// Everything that steers the simulator in this process and its children.
constexpr const char *kSettings[] = {"KXSIM_CONFIG", "KXSIM_FAULTS", "KXSIM_FAULTS_FILE",
                                     "KXSIM_LOG", "KXSIM_TRACE"};

bool MakeDirs(const std::filesystem::path &dir) {
  std::error_code ec;
  std::filesystem::create_directories(dir, ec);
  return !ec && std::filesystem::is_directory(dir);
}

}  // namespace

SimFs::SimFs(const std::string &fsid_hex) {
  for (const char *name : kSettings) {
    const char *value = getenv(name);
    saved_env_.emplace_back(name,
                            value != nullptr ? std::optional<std::string>(value) : std::nullopt);
    unsetenv(name);
  }
  root_ = MakeTempDir("kxsim-test");
  if (root_.empty()) {
    error_ = std::string("mkdtemp: ") + strerror(errno);
    return;
  }
  chmod(root_.c_str(), 0711);  // a program run as nobody reaches the mount point
  config_ = root_ + "/kxsim.conf";
  mnt_ = root_ + "/mnt";
  setenv("KXSIM_CONFIG", config_.c_str(), 1);
  // A per-user default registry on this machine must not bring a driver
  // into the cases that unset KXSIM_CONFIG, during the case or after it:
  // this stays set, naming a directory that never exists.
  setenv("XDG_STATE_HOME", (root_ + "/no-state").c_str(), 1);
  std::vector<std::string> args{"mkfs", mnt_};
  if (!fsid_hex.empty()) args.insert(args.end(), {"--fsid", fsid_hex});
  CmdResult made = Kxsim(args);
  if (made.exit_code != 0) error_ = "kxsim mkfs failed: " + made.err;
}

SimFs::~SimFs() {
  for (const auto &[name, value] : saved_env_) {
    if (value) {
      setenv(name.c_str(), value->c_str(), 1);
    } else {
      unsetenv(name.c_str());
    }
  }
  if (!root_.empty()) RemoveTree(root_);
}

CmdResult SimFs::Kxsim(const std::vector<std::string> &args) const {
  std::vector<std::string> argv{KXSIM_CLI};
  argv.insert(argv.end(), args.begin(), args.end());
  RunOptions opts;
  opts.env["KXSIM_CONFIG"] = config_;
  return RunCommand(argv, opts);
}

std::string SimFs::Query(const std::vector<std::string> &args) const {
  CmdResult r = Kxsim(args);
  if (r.exit_code != 0) return "ERROR: " + r.err;
  while (!r.out.empty() && (r.out.back() == '\n' || r.out.back() == ' ')) r.out.pop_back();
  return r.out;
}

std::string SimFs::Mkfs(const std::string &name, const std::string &fsid_hex) const {
  std::string dir = root_ + "/" + name;
  CmdResult made =
      fsid_hex.empty() ? Kxsim({"mkfs", dir}) : Kxsim({"mkfs", dir, "--fsid", fsid_hex});
  return made.exit_code == 0 ? dir : std::string();
}

bool SimFs::MakeDir(const std::string &rel) const {
  return MakeDirs(Path(rel));
}

bool SimFs::MakeFile(const std::string &rel, off_t size, bool allocated) const {
  if (allocated) return WriteFile(rel, std::string(static_cast<size_t>(size), 'x'));
  return WriteFile(rel, "") && truncate(Path(rel).c_str(), size) == 0;
}

bool SimFs::WriteFile(const std::string &rel, const std::string &text) const {
  std::filesystem::path file = Path(rel);
  if (!MakeDirs(file.parent_path())) return false;
  int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  struct stat st {};
  ok = fstat(fd, &st) == 0 && close(fd) == 0 && ok;
  if (ok && !text.empty() && st.st_blocks == 0) {
    ADD_FAILURE() << file << ": this file system keeps small files without blocks";
    return false;
  }
  return ok;
}

bool SimFs::Exists(const std::string &rel) const {
  struct stat st {};
  return lstat(Path(rel).c_str(), &st) == 0;
}

bool SimFs::TouchConfig(int seconds_later) const {
  struct stat st {};
  if (stat(config_.c_str(), &st) != 0) return false;
  struct timespec times[2] = {st.st_atim, st.st_mtim};
  times[1].tv_sec += seconds_later;
  return utimensat(AT_FDCWD, config_.c_str(), times, 0) == 0;
}

std::string SimFs::StartLog() const {
  unlink(LogPath().c_str());
  setenv("KXSIM_LOG", LogPath().c_str(), 1);
  return LogPath();
}

std::vector<std::string> SimFs::LogLinesWith(std::initializer_list<std::string> parts) const {
  std::vector<std::string> found;
  for (const std::string &line : LogLines()) {
    bool all = true;
    for (const std::string &part : parts) all = all && line.find(part) != std::string::npos;
    if (all) found.push_back(line);
  }
  return found;
}

}  // namespace vdtest
