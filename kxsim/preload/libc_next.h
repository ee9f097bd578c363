// Used by the interposers (kxsim/preload/wrap/), which may call the driver
// (driver/driver.h), this folder and core/.
//
// The C library's own functions behind the wrappers, found once with
// dlsym(RTLD_NEXT). Internal work calls these (or raw system calls), never
// the wrapped names.
#pragma once

#include <mntent.h>
#include <sys/types.h>

#include <cstdio>

namespace kxsim::next {

int open(const char *path, int flags, mode_t mode);
int open64(const char *path, int flags, mode_t mode);
int openat(int dirfd, const char *path, int flags, mode_t mode);
int openat64(int dirfd, const char *path, int flags, mode_t mode);
int open_2(const char *path, int flags);
int open64_2(const char *path, int flags);
int openat_2(int dirfd, const char *path, int flags);
int openat64_2(int dirfd, const char *path, int flags);
int ioctl(int fd, unsigned long request, void *arg);
int close(int fd);
int unlink(const char *path);
int unlinkat(int dirfd, const char *path, int flags);
FILE *setmntent(const char *file, const char *mode);
int setenv(const char *name, const char *value, int overwrite);
int unsetenv(const char *name);
int putenv(char *text);
int clearenv();

}  // namespace kxsim::next
