#include "kxsim/preload/libc_next.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace kxsim::next {

namespace {
// Resolves a symbol once; races only repeat the same lookup.
template <typename Fn>
Fn resolve(std::atomic<Fn> &slot, const char *name) {
  Fn fn = slot.load(std::memory_order_acquire);
  if (!fn) {
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    slot.store(fn, std::memory_order_release);
  }
  return fn;
}

#define KXSIM_NEXT(type, name) \
  using name##_fn = type;      \
  std::atomic<name##_fn> name##_slot{nullptr};

KXSIM_NEXT(int (*)(const char *, int, ...), open)
KXSIM_NEXT(int (*)(const char *, int, ...), open64)
KXSIM_NEXT(int (*)(int, const char *, int, ...), openat)
KXSIM_NEXT(int (*)(int, const char *, int, ...), openat64)
KXSIM_NEXT(int (*)(const char *, int), open_2)
KXSIM_NEXT(int (*)(const char *, int), open64_2)
KXSIM_NEXT(int (*)(int, const char *, int), openat_2)
KXSIM_NEXT(int (*)(int, const char *, int), openat64_2)
KXSIM_NEXT(int (*)(int, unsigned long, ...), ioctl)
KXSIM_NEXT(int (*)(int), close)
KXSIM_NEXT(int (*)(const char *), unlink)
KXSIM_NEXT(int (*)(int, const char *, int), unlinkat)
KXSIM_NEXT(FILE *(*)(const char *, const char *), setmntent)
KXSIM_NEXT(int (*)(const char *, const char *, int), setenv)
KXSIM_NEXT(int (*)(const char *), unsetenv)
KXSIM_NEXT(int (*)(char *), putenv)
KXSIM_NEXT(int (*)(), clearenv)
#undef KXSIM_NEXT

// When a symbol cannot be found (a static program, a broken loader) the
// system call itself stands in.
int sys_openat(int dirfd, const char *path, int flags, mode_t mode) {
  return static_cast<int>(syscall(SYS_openat, dirfd, path, flags, mode));
}
}  // namespace

int open(const char *path, int flags, mode_t mode) {
  auto fn = resolve(open_slot, "open");
  return fn ? fn(path, flags, mode) : sys_openat(AT_FDCWD, path, flags, mode);
}
int open64(const char *path, int flags, mode_t mode) {
  auto fn = resolve(open64_slot, "open64");
  return fn ? fn(path, flags, mode) : sys_openat(AT_FDCWD, path, flags, mode);
}
int openat(int dirfd, const char *path, int flags, mode_t mode) {
  auto fn = resolve(openat_slot, "openat");
  return fn ? fn(dirfd, path, flags, mode) : sys_openat(dirfd, path, flags, mode);
}
int openat64(int dirfd, const char *path, int flags, mode_t mode) {
  auto fn = resolve(openat64_slot, "openat64");
  return fn ? fn(dirfd, path, flags, mode) : sys_openat(dirfd, path, flags, mode);
}
int open_2(const char *path, int flags) {
  auto fn = resolve(open_2_slot, "__open_2");
  return fn ? fn(path, flags) : sys_openat(AT_FDCWD, path, flags, 0);
}
int open64_2(const char *path, int flags) {
  auto fn = resolve(open64_2_slot, "__open64_2");
  return fn ? fn(path, flags) : sys_openat(AT_FDCWD, path, flags, 0);
}
int openat_2(int dirfd, const char *path, int flags) {
  auto fn = resolve(openat_2_slot, "__openat_2");
  return fn ? fn(dirfd, path, flags) : sys_openat(dirfd, path, flags, 0);
}
int openat64_2(int dirfd, const char *path, int flags) {
  auto fn = resolve(openat64_2_slot, "__openat64_2");
  return fn ? fn(dirfd, path, flags) : sys_openat(dirfd, path, flags, 0);
}
int ioctl(int fd, unsigned long request, void *arg) {
  auto fn = resolve(ioctl_slot, "ioctl");
  return fn ? fn(fd, request, arg) : static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
}
int close(int fd) {
  auto fn = resolve(close_slot, "close");
  return fn ? fn(fd) : static_cast<int>(syscall(SYS_close, fd));
}
int unlink(const char *path) {
  auto fn = resolve(unlink_slot, "unlink");
  return fn ? fn(path) : static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}
int unlinkat(int dirfd, const char *path, int flags) {
  auto fn = resolve(unlinkat_slot, "unlinkat");
  return fn ? fn(dirfd, path, flags) : static_cast<int>(syscall(SYS_unlinkat, dirfd, path, flags));
}
FILE *setmntent(const char *file, const char *mode) {
  auto fn = resolve(setmntent_slot, "setmntent");
  if (!fn) {
    errno = ENOSYS;
    return nullptr;
  }
  return fn(file, mode);
}

// The environment functions have no system call to stand in: without the C
// library's there is no environment to change.
int setenv(const char *name, const char *value, int overwrite) {
  auto fn = resolve(setenv_slot, "setenv");
  if (!fn) return errno = ENOSYS, -1;
  return fn(name, value, overwrite);
}
int unsetenv(const char *name) {
  auto fn = resolve(unsetenv_slot, "unsetenv");
  if (!fn) return errno = ENOSYS, -1;
  return fn(name);
}
int putenv(char *text) {
  auto fn = resolve(putenv_slot, "putenv");
  if (!fn) return errno = ENOSYS, -1;
  return fn(text);
}
int clearenv() {
  auto fn = resolve(clearenv_slot, "clearenv");
  if (!fn) return errno = ENOSYS, -1;
  return fn();
}

}  // namespace kxsim::next
