// Whether a directory is the root of a mount: the walk enters neither
// another file system nor another mount of this one, through which it
// would reach files under other names and other policies.
#pragma once

#include <sys/stat.h>

// True when the directory open on `dir_fd` is where a mount is rooted
// (false also where the system cannot tell).
bool is_mount_root(int dir_fd);

// Whether the entry `name` of the directory open on `dir_fd` is the root of
// a mount; fills its lstat data. False with errno set when it cannot be
// examined.
bool stat_entry(int dir_fd, const char *name, struct stat &st, bool &mount_root);
