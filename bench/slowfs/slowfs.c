/* slowfs: a directory mirrored through FUSE, with a delay on every metadata
 * operation, as a metadata server with cold caches answers.
 *
 *   slowfs SOURCE MOUNTPOINT [-o delay_us=N] [FUSE options]
 *   fusermount3 -u MOUNTPOINT
 *
 * Every lookup, getattr, readdir, open, create, unlink, mkdir, rename and
 * extended-attribute call waits N microseconds (default 200) before it is
 * served; reads and writes of data do not. The kernel's attribute and entry
 * caches are off, so every stat reaches the file system, and requests are
 * served by many threads at once, so that a client that keeps several in
 * flight sees them overlap as a busy server would let them. Inode numbers
 * are the source's, so that state kept by inode (the simulator's) stays
 * valid across the mirror.
 */
#define FUSE_USE_VERSION 35
#define _GNU_SOURCE

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <limits.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

struct slowfs_options {
  unsigned long delay_us;
};

static struct slowfs_options options = {200};
static int source_fd = -1;

static const struct fuse_opt option_spec[] = {
    {"delay_us=%lu", offsetof(struct slowfs_options, delay_us), 0},
    FUSE_OPT_END,
};

/* The server's latency: a sleep, not a spin, so that threads overlap. */
static void metadata_delay(void) {
  if (options.delay_us == 0) return;
  struct timespec t = {(time_t)(options.delay_us / 1000000),
                       (long)(options.delay_us % 1000000) * 1000};
  while (nanosleep(&t, &t) != 0 && errno == EINTR) {
  }
}

/* FUSE paths start with '/': relative to the source directory. */
static const char *rel(const char *path) {
  return path[1] == '\0' ? "." : path + 1;
}

static int result(int rc) {
  return rc < 0 ? -errno : rc;
}

static void *slowfs_init(struct fuse_conn_info *conn, struct fuse_config *cfg) {
  (void)conn;
  cfg->use_ino = 1;
  cfg->readdir_ino = 1;
  cfg->entry_timeout = 0;
  cfg->attr_timeout = 0;
  cfg->negative_timeout = 0;
  cfg->direct_io = 0;
  return NULL;
}

static int slowfs_getattr(const char *path, struct stat *st, struct fuse_file_info *fi) {
  metadata_delay();
  if (fi != NULL) return result(fstat((int)fi->fh, st));
  return result(fstatat(source_fd, rel(path), st, AT_SYMLINK_NOFOLLOW));
}

static int slowfs_readlink(const char *path, char *buf, size_t size) {
  metadata_delay();
  ssize_t n = readlinkat(source_fd, rel(path), buf, size - 1);
  if (n < 0) return -errno;
  buf[n] = '\0';
  return 0;
}

static int slowfs_opendir(const char *path, struct fuse_file_info *fi) {
  metadata_delay();
  int fd = openat(source_fd, rel(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -errno;
  fi->fh = (uint64_t)fd;
  return 0;
}

static int slowfs_readdir(const char *path, void *buf, fuse_fill_dir_t fill, off_t offset,
                          struct fuse_file_info *fi, enum fuse_readdir_flags flags) {
  (void)path;
  (void)offset;
  (void)flags;
  metadata_delay();
  int fd = dup((int)fi->fh);
  if (fd < 0) return -errno;
  DIR *dir = fdopendir(fd);
  if (dir == NULL) {
    int err = errno;
    close(fd);
    return -err;
  }
  rewinddir(dir);
  struct dirent *entry;
  while ((entry = readdir(dir)) != NULL) {
    struct stat st = {0};
    st.st_ino = entry->d_ino;
    st.st_mode = (mode_t)DTTOIF(entry->d_type);
    if (fill(buf, entry->d_name, &st, 0, 0) != 0) break;
  }
  closedir(dir);
  return 0;
}

static int slowfs_releasedir(const char *path, struct fuse_file_info *fi) {
  (void)path;
  close((int)fi->fh);
  return 0;
}

static int slowfs_open(const char *path, struct fuse_file_info *fi) {
  metadata_delay();
  int fd = openat(source_fd, rel(path), (fi->flags & ~O_NOFOLLOW) | O_CLOEXEC);
  if (fd < 0) return -errno;
  fi->fh = (uint64_t)fd;
  return 0;
}

static int slowfs_create(const char *path, mode_t mode, struct fuse_file_info *fi) {
  metadata_delay();
  int fd = openat(source_fd, rel(path), fi->flags | O_CREAT | O_CLOEXEC, mode);
  if (fd < 0) return -errno;
  fi->fh = (uint64_t)fd;
  return 0;
}

static int slowfs_read(const char *path, char *buf, size_t size, off_t offset,
                       struct fuse_file_info *fi) {
  (void)path;
  return result((int)pread((int)fi->fh, buf, size, offset));
}

static int slowfs_write(const char *path, const char *buf, size_t size, off_t offset,
                        struct fuse_file_info *fi) {
  (void)path;
  return result((int)pwrite((int)fi->fh, buf, size, offset));
}

static int slowfs_release(const char *path, struct fuse_file_info *fi) {
  (void)path;
  close((int)fi->fh);
  return 0;
}

static int slowfs_fsync(const char *path, int datasync, struct fuse_file_info *fi) {
  (void)path;
  return result(datasync ? fdatasync((int)fi->fh) : fsync((int)fi->fh));
}

static int slowfs_truncate(const char *path, off_t size, struct fuse_file_info *fi) {
  metadata_delay();
  if (fi != NULL) return result(ftruncate((int)fi->fh, size));
  int fd = openat(source_fd, rel(path), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  int rc = result(ftruncate(fd, size));
  close(fd);
  return rc;
}

static int slowfs_unlink(const char *path) {
  metadata_delay();
  return result(unlinkat(source_fd, rel(path), 0));
}

static int slowfs_mkdir(const char *path, mode_t mode) {
  metadata_delay();
  return result(mkdirat(source_fd, rel(path), mode));
}

static int slowfs_rmdir(const char *path) {
  metadata_delay();
  return result(unlinkat(source_fd, rel(path), AT_REMOVEDIR));
}

static int slowfs_symlink(const char *target, const char *path) {
  metadata_delay();
  return result(symlinkat(target, source_fd, rel(path)));
}

static int slowfs_link(const char *from, const char *to) {
  metadata_delay();
  return result(linkat(source_fd, rel(from), source_fd, rel(to), 0));
}

static int slowfs_rename(const char *from, const char *to, unsigned int flags) {
  metadata_delay();
  return result(renameat2(source_fd, rel(from), source_fd, rel(to), flags));
}

static int slowfs_mknod(const char *path, mode_t mode, dev_t dev) {
  metadata_delay();
  return result(mknodat(source_fd, rel(path), mode, dev));
}

static int slowfs_chmod(const char *path, mode_t mode, struct fuse_file_info *fi) {
  metadata_delay();
  if (fi != NULL) return result(fchmod((int)fi->fh, mode));
  return result(fchmodat(source_fd, rel(path), mode, 0));
}

static int slowfs_chown(const char *path, uid_t uid, gid_t gid, struct fuse_file_info *fi) {
  metadata_delay();
  if (fi != NULL) return result(fchown((int)fi->fh, uid, gid));
  return result(fchownat(source_fd, rel(path), uid, gid, AT_SYMLINK_NOFOLLOW));
}

static int slowfs_utimens(const char *path, const struct timespec tv[2],
                          struct fuse_file_info *fi) {
  metadata_delay();
  if (fi != NULL) return result(futimens((int)fi->fh, tv));
  return result(utimensat(source_fd, rel(path), tv, AT_SYMLINK_NOFOLLOW));
}

static int slowfs_statfs(const char *path, struct statvfs *st) {
  (void)path;
  return result(fstatvfs(source_fd, st));
}

static int slowfs_access(const char *path, int mask) {
  metadata_delay();
  return result(faccessat(source_fd, rel(path), mask, 0));
}

static int slowfs_fallocate(const char *path, int mode, off_t offset, off_t length,
                            struct fuse_file_info *fi) {
  (void)path;
  return result(fallocate((int)fi->fh, mode, offset, length));
}

/* Extended attributes go through /proc/self/fd of an O_PATH descriptor:
 * the *at forms do not exist for them. */
static int xattr_path(const char *path, char *out, size_t size, int *fd) {
  *fd = openat(source_fd, rel(path), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (*fd < 0) return -errno;
  snprintf(out, size, "/proc/self/fd/%d", *fd);
  return 0;
}

static int slowfs_setxattr(const char *path, const char *name, const char *value, size_t size,
                           int flags) {
  metadata_delay();
  char proc[64];
  int fd, rc = xattr_path(path, proc, sizeof proc, &fd);
  if (rc != 0) return rc;
  rc = result(setxattr(proc, name, value, size, flags));
  close(fd);
  return rc;
}

static int slowfs_getxattr(const char *path, const char *name, char *value, size_t size) {
  metadata_delay();
  char proc[64];
  int fd, rc = xattr_path(path, proc, sizeof proc, &fd);
  if (rc != 0) return rc;
  rc = result((int)getxattr(proc, name, value, size));
  close(fd);
  return rc;
}

static int slowfs_listxattr(const char *path, char *list, size_t size) {
  metadata_delay();
  char proc[64];
  int fd, rc = xattr_path(path, proc, sizeof proc, &fd);
  if (rc != 0) return rc;
  rc = result((int)listxattr(proc, list, size));
  close(fd);
  return rc;
}

static int slowfs_removexattr(const char *path, const char *name) {
  metadata_delay();
  char proc[64];
  int fd, rc = xattr_path(path, proc, sizeof proc, &fd);
  if (rc != 0) return rc;
  rc = result(removexattr(proc, name));
  close(fd);
  return rc;
}

static const struct fuse_operations slowfs_ops = {
    .init = slowfs_init,
    .getattr = slowfs_getattr,
    .readlink = slowfs_readlink,
    .opendir = slowfs_opendir,
    .readdir = slowfs_readdir,
    .releasedir = slowfs_releasedir,
    .open = slowfs_open,
    .create = slowfs_create,
    .read = slowfs_read,
    .write = slowfs_write,
    .release = slowfs_release,
    .fsync = slowfs_fsync,
    .truncate = slowfs_truncate,
    .unlink = slowfs_unlink,
    .mkdir = slowfs_mkdir,
    .rmdir = slowfs_rmdir,
    .symlink = slowfs_symlink,
    .link = slowfs_link,
    .rename = slowfs_rename,
    .mknod = slowfs_mknod,
    .chmod = slowfs_chmod,
    .chown = slowfs_chown,
    .utimens = slowfs_utimens,
    .statfs = slowfs_statfs,
    .access = slowfs_access,
    .fallocate = slowfs_fallocate,
    .setxattr = slowfs_setxattr,
    .getxattr = slowfs_getxattr,
    .listxattr = slowfs_listxattr,
    .removexattr = slowfs_removexattr,
};

/* The first non-option argument is the source directory; FUSE takes the
 * rest. */
static int take_source(void *data, const char *arg, int key, struct fuse_args *outargs) {
  (void)data;
  (void)outargs;
  if (key == FUSE_OPT_KEY_NONOPT && source_fd < 0) {
    source_fd = open(arg, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (source_fd < 0) {
      fprintf(stderr, "slowfs: %s: %s\n", arg, strerror(errno));
      exit(1);
    }
    return 0;
  }
  return 1;
}

int main(int argc, char *argv[]) {
  struct fuse_args args = FUSE_ARGS_INIT(argc, argv);
  if (fuse_opt_parse(&args, &options, option_spec, take_source) != 0) return 1;
  if (source_fd < 0) {
    fprintf(stderr, "usage: slowfs SOURCE MOUNTPOINT [-o delay_us=N] [FUSE options]\n");
    return 1;
  }
  umask(0);
  /* Many requests at once: a cold metadata server is slow, not serial. */
  fuse_opt_add_arg(&args, "-omax_threads=64");
  int rc = fuse_main(args.argc, args.argv, &slowfs_ops, NULL);
  fuse_opt_free_args(&args);
  return rc;
}
