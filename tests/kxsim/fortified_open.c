/* Opens the driver's control device through the entry points that a
 * program built with _FORTIFY_SOURCE calls: open and openat with flags the
 * compiler cannot see become __open_2 and __openat_2 (and their 64-bit
 * twins). Exits 0 when every one reached the simulator. */
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

int main(int argc, char **argv) {
  const int flags = argc > 5 ? O_CREAT : O_RDWR; /* unknown at compile time */
  const char *device = argv[1];
  int fds[2] = {open(device, flags), openat(AT_FDCWD, device, flags)};
  for (int i = 0; i < 2; i++) {
    if (fds[i] < 0) {
      perror(i == 0 ? "open" : "openat");
      return 1;
    }
    close(fds[i]);
  }
  return 0;
}
