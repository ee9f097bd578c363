// setenv, unsetenv, putenv and clearenv: the C library's, then a note that
// the environment changed, so that the simulator takes its settings again
// before the next request (settings.h) instead of reading them on every one.
#include <cstdlib>

#include "kxsim/preload/libc_next.h"
#include "kxsim/preload/settings.h"

using namespace kxsim;

extern "C" {

int setenv(const char *name, const char *value, int overwrite) noexcept {
  int r = next::setenv(name, value, overwrite);
  note_environment_change();
  return r;
}

int unsetenv(const char *name) noexcept {
  int r = next::unsetenv(name);
  note_environment_change();
  return r;
}

int putenv(char *text) noexcept {
  int r = next::putenv(text);
  note_environment_change();
  return r;
}

int clearenv() noexcept {
  int r = next::clearenv();
  note_environment_change();
  return r;
}

}  // extern "C"
