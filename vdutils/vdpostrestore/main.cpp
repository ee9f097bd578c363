// vdpostrestore: clean up a file system after a metadata restore.
//
// Start-up, in order: privilege check, command line, log file and header,
// mount point check, DMAPI session and version check; then the walk. Every
// failure ends the run with exit status 1; -h ends it with 0.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kxdmapi/kxdmapi.h"
#include "libutil/priv_check.h"
#include "log_file.h"
#include "options.h"
#include "run_counts.h"
#include "settings.h"
#include "stop_signals.h"
#include "walk/dir_walk.h"

namespace {

bool check_mount_point() {
  struct stat st;
  if (stat(Mount_Point, &st) != 0) {
    ErrPrintf("Failed to stat mount point %s: %s.\n", Mount_Point, std::strerror(errno));
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    ErrPrintf("%s is not a directory.\n", Mount_Point);
    return false;
  }
  return true;
}

bool open_dm_session() {
  char *version_string = nullptr;
  if (dm_init_service(&version_string) < 0) {
    ErrPrintf("Failed to init dm session: %s.\n", std::strerror(errno));
    return false;
  }
  // strncmp over the full length and terminator: equal only for exactly the
  // same string, and never reads past the end of a shorter one.
  if (version_string == nullptr ||
      std::strncmp(version_string, kDmapiVersion, sizeof kDmapiVersion) != 0) {
    ErrPrintf("Version mismatch---session initialized for %s, but compiled for %s.\n",
              version_string != nullptr ? version_string : "(null)", kDmapiVersion);
    return false;
  }
  return true;
}

// The walk holds one descriptor per level of depth: allow it as deep a
// tree as the system lets this process.
void raise_descriptor_limit() {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_NOFILE, &limit);
  }
}

int run(int argc, char **argv) {
  Prog = (argc > 0 && argv[0] != nullptr) ? argv[0] : "vdpostrestore";
  if (handle_long_options(argc, argv)) return 0;
  if (!PrivCheck()) {
    (void)std::fputs("Insufficient administrative privileges.\n", stderr);
    return 1;
  }
  set_caller_name(Prog);
  if (!take_long_options(argc, argv)) return 1;
  switch (parse_command_line(argc, argv)) {
    case OptionsResult::kRun:
      break;
    case OptionsResult::kExitOk:
      return 0;
    case OptionsResult::kExitFail:
      return 1;
  }
  VPrintf(1, "Got mount point %s.\n", Mount_Point);
  if (LogFileName[0] == '\0') std::memcpy(LogFileName, kDefaultLogFile, sizeof kDefaultLogFile);
  // The header goes out before the mount point is examined: a run that
  // fails from here on still leaves a log that says what it was run on.
  if (!open_log_file()) return 1;
  if (!check_mount_point() || !open_dm_session()) return 1;
  raise_descriptor_limit();
  catch_stop_signals();
  start_run_counts();
  const bool done = walk_tree() && finish_log_file();
  erase_progress_line();
  if (Print_Summary) print_summary();
  return done ? 0 : 1;
}

// A closed standard stream would hand its number to the next file opened:
// with standard output closed, the log would receive the progress messages.
bool standard_streams_open() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    if (open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY) != fd) return false;
  }
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  if (!standard_streams_open()) return 1;
  return run(argc, argv);
}
