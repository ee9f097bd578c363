#include "kxsim/cli/cli_common.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kxsim/core/config_path.h"
#include "kxsim/core/path_resolve.h"
#include "kxsim/core/sysio.h"

namespace kxsim::cli {

int fail(const std::string &msg) {
  (void)std::fprintf(stderr, "kxsim: %s\n", msg.c_str());
  return 1;
}

bool load_registry(Registry &reg, bool may_be_missing, std::string &error,
                   const std::string &override_path) {
  reg.path = override_path.empty() ? active_config_path() : override_path;
  if (reg.path.empty()) {
    const char *env = std::getenv("KXSIM_CONFIG");
    error = env ? "KXSIM_CONFIG is empty, which switches the simulator off"
                : "no configuration file: KXSIM_CONFIG is not set and neither XDG_STATE_HOME "
                  "nor HOME gives the default";
    return false;
  }
  std::string text;
  if (!sys::read_file(reg.path, text)) {
    if (errno == ENOENT && may_be_missing) return true;
    error = reg.path + ": " + std::strerror(errno);
    return false;
  }
  if (!parse_config(text, reg.config, error)) {
    error = reg.path + ": " + error;
    return false;
  }
  return true;
}

bool save_registry(const Registry &reg, std::string &error) {
  std::string abs = absolute_path(AT_FDCWD, reg.path.c_str());
  std::size_t slash = abs.rfind('/');
  if (slash != std::string::npos && slash > 0 && !sys::make_dirs(abs.substr(0, slash))) {
    error = abs.substr(0, slash) + ": " + std::strerror(errno);
    return false;
  }
  if (!sys::write_file_atomic(reg.path, format_config(reg.config))) {
    error = reg.path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

bool find_object(const Registry &reg, const std::string &arg, Object &out, std::string &error) {
  std::string abs = absolute_path(AT_FDCWD, arg.c_str());
  auto path = abs.empty() ? std::nullopt : canonical_path(abs, false);
  if (!path || !identify_path(*path, out.id)) {
    error = arg + ": " + std::strerror(errno ? errno : ENOENT);
    return false;
  }
  out.path = *path;
  out.mount = reg.config.find_by_path(out.path);
  if (!out.mount) {
    error = arg + ": not inside a simulated kxfs mount of " + reg.path;
    return false;
  }
  return true;
}

std::optional<std::string> take_option(Args &args, const std::string &name) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--") return std::nullopt;
    if (args[i] != name) continue;
    if (i + 1 >= args.size()) return std::string();
    std::string v = args[i + 1];
    args.erase(args.begin() + static_cast<std::ptrdiff_t>(i),
               args.begin() + static_cast<std::ptrdiff_t>(i) + 2);
    return v;
  }
  return std::nullopt;
}

}  // namespace kxsim::cli
