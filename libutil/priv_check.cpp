// Administrator check and the process-wide caller name.
#include "libutil/priv_check.h"

#include <unistd.h>

extern "C" {

const char *CallerName = "libutil";

void set_caller_name(const char *name) {
  CallerName = name;
}

// Only the effective id matters: a set-uid-root program may act as root,
// a root shell that dropped its effective id may not.
int PrivCheck(void) {
  return geteuid() == 0 ? 1 : 0;
}

}  // extern "C"
