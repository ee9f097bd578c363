/* The baseline of the tree-walk benchmark: the least a depth-first walk
 * that looks at every file's size and blocks must do (opendir, readdir and
 * lstat by full path). Prints the number of files with a size and no
 * blocks, so the work cannot be optimised away. */
#define _GNU_SOURCE
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

static unsigned long files, blockless;

static int walk(char *path, size_t len, size_t cap) {
  DIR *dir = opendir(path);
  if (dir == NULL) {
    perror(path);
    return -1;
  }
  struct dirent *entry;
  int rc = 0;
  while (rc == 0 && (entry = readdir(dir)) != NULL) {
    const char *name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    size_t name_len = strlen(name);
    if (len + 1 + name_len >= cap) {
      fprintf(stderr, "path too long under %s\n", path);
      rc = -1;
      break;
    }
    path[len] = '/';
    memcpy(path + len + 1, name, name_len + 1);
    struct stat st;
    if (lstat(path, &st) != 0) {
      perror(path);
      rc = -1;
    } else if (S_ISDIR(st.st_mode)) {
      rc = walk(path, len + 1 + name_len, cap);
    } else if (S_ISREG(st.st_mode)) {
      ++files;
      if (st.st_blocks == 0 && st.st_size != 0) ++blockless;
    }
    path[len] = '\0';
  }
  closedir(dir);
  return rc;
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: cwalk DIR\n");
    return 2;
  }
  char path[4096];
  size_t len = strlen(argv[1]);
  if (len >= sizeof path) return 2;
  memcpy(path, argv[1], len + 1);
  if (walk(path, len, sizeof path) != 0) return 1;
  printf("%lu files, %lu without blocks\n", files, blockless);
  return 0;
}
