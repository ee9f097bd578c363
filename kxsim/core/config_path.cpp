#include "kxsim/core/config_path.h"

#include <climits>
#include <cstdio>
#include <cstdlib>

namespace kxsim {

namespace {
const char *nonempty_env(const char *name) {
  const char *v = std::getenv(name);
  return v && *v ? v : nullptr;
}
}  // namespace

bool default_config_path(char *buf, std::size_t size) {
  int n = -1;
  // A relative XDG_STATE_HOME is to be ignored, as if it were unset.
  if (const char *xdg = nonempty_env("XDG_STATE_HOME"); xdg && xdg[0] == '/') {
    n = std::snprintf(buf, size, "%s/kxsim/kxsim.conf", xdg);
  } else if (const char *home = nonempty_env("HOME")) {
    n = std::snprintf(buf, size, "%s/.local/state/kxsim/kxsim.conf", home);
  }
  return n > 0 && static_cast<std::size_t>(n) < size;
}

std::string default_config_path() {
  char buf[PATH_MAX];
  return default_config_path(buf, sizeof buf) ? std::string(buf) : std::string();
}

std::string active_config_path() {
  if (const char *env = std::getenv("KXSIM_CONFIG")) return env;
  return default_config_path();
}

}  // namespace kxsim
