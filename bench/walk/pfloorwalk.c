/* The parallel floor of the scale benchmark: what many threads that share
 * out the subtrees can do, in no particular order. Each directory is read
 * through its own descriptor (openat, getdents64) and each entry is
 * fstatat'ed relative to it; directories found are queued for whichever
 * thread is free. Files with a size and no blocks are counted, and written
 * to the log at the end (a parallel walker has no order to keep).
 *
 * usage: pfloorwalk THREADS LOG DIR */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { kBufferSize = 32768 };

struct dir_item {
  int fd;
  struct dir_item *next;
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t work = PTHREAD_COND_INITIALIZER;
static struct dir_item *queue;
static int busy;  /* threads reading a directory */
static unsigned long files, blockless;

static void push(int fd) {
  struct dir_item *item = malloc(sizeof *item);
  if (item == NULL) abort();
  item->fd = fd;
  pthread_mutex_lock(&lock);
  item->next = queue;
  queue = item;
  pthread_cond_signal(&work);
  pthread_mutex_unlock(&lock);
}

static void read_dir(int fd, char *buffer) {
  unsigned long f = 0, b = 0;
  for (;;) {
    long n = getdents64(fd, buffer, kBufferSize);
    if (n <= 0) break;
    for (long off = 0; off < n;) {
      struct dirent64 *d = (struct dirent64 *)(buffer + off);
      off += d->d_reclen;
      if (d->d_name[0] == '.' && (!d->d_name[1] || (d->d_name[1] == '.' && !d->d_name[2])))
        continue;
      struct stat st;
      if (fstatat(fd, d->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      if (S_ISDIR(st.st_mode)) {
        int sub = openat(fd, d->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub >= 0) push(sub);
      } else if (S_ISREG(st.st_mode)) {
        ++f;
        if (st.st_blocks == 0 && st.st_size != 0) ++b;
      }
    }
  }
  close(fd);
  pthread_mutex_lock(&lock);
  files += f;
  blockless += b;
  pthread_mutex_unlock(&lock);
}

static void *worker(void *unused) {
  (void)unused;
  char *buffer = malloc(kBufferSize);
  if (buffer == NULL) abort();
  pthread_mutex_lock(&lock);
  for (;;) {
    while (queue == NULL && busy > 0) pthread_cond_wait(&work, &lock);
    if (queue == NULL) break;
    struct dir_item *item = queue;
    queue = item->next;
    ++busy;
    pthread_mutex_unlock(&lock);
    read_dir(item->fd, buffer);
    free(item);
    pthread_mutex_lock(&lock);
    if (--busy == 0 && queue == NULL) pthread_cond_broadcast(&work);
  }
  pthread_mutex_unlock(&lock);
  free(buffer);
  return NULL;
}

int main(int argc, char **argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: pfloorwalk THREADS LOG DIR\n");
    return 2;
  }
  int threads = atoi(argv[1]);
  if (threads < 1 || threads > 1024) threads = 1;
  int root = open(argv[3], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (root < 0) {
    perror(argv[3]);
    return 1;
  }
  push(root);
  pthread_t *ids = calloc((size_t)threads, sizeof *ids);
  if (ids == NULL) abort();
  for (int i = 0; i < threads; ++i) pthread_create(&ids[i], NULL, worker, NULL);
  for (int i = 0; i < threads; ++i) pthread_join(ids[i], NULL);
  FILE *log = fopen(argv[2], "w");
  if (log == NULL || fprintf(log, "%lu files, %lu without blocks\n", files, blockless) < 0 ||
      fclose(log) != 0)
    return 1;
  free(ids);
  return 0;
}
