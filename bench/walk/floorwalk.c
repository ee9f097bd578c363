/* The floor of the tree-walk benchmark: the least a depth-first walk that
 * looks at every file's size and blocks can do. Each directory is read
 * through its own descriptor (openat, getdents64) and each entry is
 * fstatat'ed relative to it, with no path built for the system calls.
 * Files with a size and no blocks get the tool's work on them: a line in a
 * log (buffered, as a dry run writes it), or with -r a line written ahead
 * with one write(2) and then the unlink, as a removing run does.
 *
 * usage: floorwalk [-r] LOG DIR */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { kBufferSize = 32768, kPathMax = 65536 };

static int remove_files;
static FILE *log_stream;
static int log_fd;
static char path[kPathMax];
static unsigned long files, blockless;

static int handle_blockless(int dir_fd, const char *name, size_t len) {
  ++blockless;
  if (!remove_files) return fputs(path, log_stream) == EOF || fputc('\n', log_stream) == EOF;
  path[len] = '\n';
  const ssize_t n = write(log_fd, path, len + 1);
  path[len] = '\0';
  if (n != (ssize_t)(len + 1) || unlinkat(dir_fd, name, 0) != 0) {
    perror(path);
    return -1;
  }
  return 0;
}

static int walk(int dir_fd, size_t len) {
  char *buffer = malloc(kBufferSize);
  if (buffer == NULL) return -1;
  int rc = 0;
  ssize_t filled;
  while (rc == 0 && (filled = getdents64(dir_fd, buffer, kBufferSize)) > 0) {
    for (ssize_t at = 0; rc == 0 && at < filled;) {
      const struct dirent64 *entry = (const struct dirent64 *)(buffer + at);
      at += entry->d_reclen;
      const char *name = entry->d_name;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      const size_t name_len = strlen(name);
      if (len + 1 + name_len >= kPathMax) {
        fprintf(stderr, "path too long under %s\n", path);
        rc = -1;
        break;
      }
      path[len] = '/';
      memcpy(path + len + 1, name, name_len + 1);
      struct stat st;
      if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        perror(path);
        rc = -1;
      } else if (S_ISDIR(st.st_mode)) {
        const int child = openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        rc = child < 0 ? -1 : walk(child, len + 1 + name_len);
        if (child < 0) perror(path);
      } else if (S_ISREG(st.st_mode)) {
        ++files;
        if (st.st_blocks == 0 && st.st_size != 0) rc = handle_blockless(dir_fd, name, len + 1 + name_len);
      }
      path[len] = '\0';
    }
  }
  if (rc == 0 && filled < 0) {
    perror(path);
    rc = -1;
  }
  free(buffer);
  close(dir_fd);
  return rc;
}

int main(int argc, char **argv) {
  int arg = 1;
  if (argc == 4 && strcmp(argv[1], "-r") == 0) {
    remove_files = 1;
    arg = 2;
  }
  if (argc - arg != 2) {
    fprintf(stderr, "usage: floorwalk [-r] LOG DIR\n");
    return 2;
  }
  log_stream = fopen(argv[arg], "we");
  const size_t len = strlen(argv[arg + 1]);
  if (log_stream == NULL || len >= kPathMax) return 2;
  fflush(log_stream);
  log_fd = fileno(log_stream);
  memcpy(path, argv[arg + 1], len + 1);
  const int root = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root < 0 || walk(root, len) != 0) return 1;
  if (fclose(log_stream) != 0) return 1;
  printf("%lu files, %lu without blocks\n", files, blockless);
  return 0;
}
