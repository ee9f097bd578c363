// kxsim run: runs a command under the simulator.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "kxsim/cli/cli_common.h"
#include "kxsim/core/config_path.h"
#include "kxsim/core/path_resolve.h"

#ifndef KXSIM_RUNTIME_PRELOAD
#define KXSIM_RUNTIME_PRELOAD ""
#endif
// Where an installed libkxsim.so lies, relative to the installed kxsim
// (e.g. "../lib/kxsim"); empty in builds that are never installed.
#ifndef KXSIM_LIBDIR_FROM_BINDIR
#define KXSIM_LIBDIR_FROM_BINDIR ""
#endif

namespace kxsim::cli {

namespace {
// libkxsim.so lives next to the kxsim binary in the build tree, and in its
// own directory below libdir once installed (KXSIM_LIBDIR_FROM_BINDIR away).
std::string library_path() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return {};
  std::string dir(self, static_cast<std::size_t>(n));
  dir.erase(dir.rfind('/'));
  std::string beside = dir + "/libkxsim.so";
  std::string installed_dir = KXSIM_LIBDIR_FROM_BINDIR;
  if (installed_dir.empty() || access(beside.c_str(), R_OK) == 0) return beside;
  if (installed_dir.front() != '/') installed_dir = dir + "/" + installed_dir;
  return installed_dir + "/libkxsim.so";
}

// A sanitizer runtime (in instrumented builds) must come first, then any
// preloads already asked for, then the simulator.
std::string preload_value(const std::string &lib) {
  std::string value;
  std::string runtime = KXSIM_RUNTIME_PRELOAD;
  const char *old = std::getenv("LD_PRELOAD");
  std::string existing = old ? old : "";
  if (!runtime.empty() && existing.find(runtime) == std::string::npos) value = runtime;
  if (!existing.empty() && existing.find("libkxsim.so") == std::string::npos) {
    value += (value.empty() ? "" : ":") + existing;
  } else if (!existing.empty()) {
    return existing;
  }
  value += (value.empty() ? "" : ":") + lib;
  return value;
}

// The client libraries find objs.conf through KXFSCONF; point it at the
// simulator's configuration directory unless the caller chose one.
void offer_conf_dir(const std::string &config_path) {
  if (std::getenv("KXFSCONF")) return;
  std::string dir = conf_dir_for(config_path);
  struct stat st {};
  if (stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) setenv("KXFSCONF", dir.c_str(), 1);
}
}  // namespace

int cmd_run(Args args) {
  auto config = take_option(args, "--config");
  if (args.empty() || args[0] != "--" || args.size() < 2 || (config && config->empty())) {
    return fail("usage: kxsim run [--config FILE] -- CMD ARGS...");
  }
  std::string path = config ? absolute_path(AT_FDCWD, config->c_str()) : active_config_path();
  if (path.empty()) {
    return fail("run needs --config FILE, KXSIM_CONFIG or a default (XDG_STATE_HOME or HOME)");
  }
  // Named explicitly, so that the child and everything it starts agree on
  // the file even if they change HOME.
  setenv("KXSIM_CONFIG", path.c_str(), 1);
  offer_conf_dir(path);
  std::string lib = library_path();
  if (lib.empty() || access(lib.c_str(), R_OK) != 0) {
    return fail("cannot find the simulator library " + lib);
  }
  setenv("LD_PRELOAD", preload_value(lib).c_str(), 1);
  std::vector<char *> argv;
  for (std::size_t i = 1; i < args.size(); ++i) argv.push_back(args[i].data());
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  return fail(args[1] + ": " + std::strerror(errno));
}

}  // namespace kxsim::cli
