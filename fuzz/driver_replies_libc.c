/* The C library's entry points that reach the kxfs driver, defined in the
 * fuzzer executable so that they take the place of the C library's (and of
 * the sanitizers' weak interceptors) for the statically linked kxdmapi.
 * Whatever is not the fake driver's goes straight to the kernel, so the
 * fuzzer's own files keep working. C rather than C++: glibc's declaration of
 * ioctl carries a no-throw marking that a C++ definition cannot repeat. */
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include <fcntl.h>
#include <mntent.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "fuzz/driver_replies_fake.h"

int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  int result = -1;
  if (fake_driver_ioctl(fd, request, arg, &result)) return result;
  return (int)syscall(SYS_ioctl, fd, request, arg);
}

static int open_any(const char *path, int flags, int mode) {
  int fd = -1;
  if (fake_driver_open(path, flags, &fd)) return fd;
  return (int)syscall(SYS_openat, AT_FDCWD, path, flags, mode);
}

/* The mode is only there when the flags ask for one. */
static int mode_of(int flags, va_list ap) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(ap, int) : 0;
}

int open(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  int mode = mode_of(flags, ap);
  va_end(ap);
  return open_any(path, flags, mode);
}

int open64(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  int mode = mode_of(flags, ap);
  va_end(ap);
  return open_any(path, flags, mode);
}

FILE *setmntent(const char *file, const char *mode) {
  return fake_driver_setmntent(file, mode);
}

struct mntent *getmntent(FILE *stream) {
  return fake_driver_getmntent(stream);
}

int endmntent(FILE *stream) {
  return fake_driver_endmntent(stream);
}
