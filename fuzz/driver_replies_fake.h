/* The fake kxfs driver of fuzz_driver_replies, as the C library's entry
 * points in driver_replies_libc.c call it. Each function returns 0 when the
 * call is not the fake driver's (the caller then goes to the kernel). */
#pragma once

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

struct mntent;

/* 1 with the result in *result when fd is one of the driver's descriptors
 * and request one of the library's; errno is set as the reply says. */
int fake_driver_ioctl(int fd, unsigned long request, void *arg, int *result);

/* 1 with a descriptor (or -1 and errno) in *fd for the driver's device nodes
 * and for paths inside the fake mounts. */
int fake_driver_open(const char *path, int flags, int *fd);

/* The fake mount table, read as "/proc/mounts". */
FILE *fake_driver_setmntent(const char *file, const char *mode);
struct mntent *fake_driver_getmntent(FILE *stream);
int fake_driver_endmntent(FILE *stream);

#ifdef __cplusplus
}
#endif
