/* A data-management application built against the installed libraries:
 * starts the service, turns the path it is given into a handle and back,
 * reads the file's external representation "BLOB" and opens no policy.
 * Prints "path <path>" and "BLOB <value>"; exits 1 on the first failure.
 *   consumer <file in a kxfs mount> */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "extapi/kxapi.h"
#include "kxdmapi/kxdmapi.h"
#include "vdpolicy/vd_pol_api.h"

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: consumer <file>\n");
    return 2;
  }
  char *version = NULL;
  if (dm_init_service(&version) != 0) {
    perror("dm_init_service");
    return 1;
  }
  void *hanp = NULL;
  size_t hlen = 0;
  if (dm_path_to_handle(argv[1], &hanp, &hlen) != 0) {
    perror("dm_path_to_handle");
    return 1;
  }
  char path[DM_PATH_BUFSIZE];
  size_t rlen = 0;
  int rc = dm_handle_to_path(NULL, 0, hanp, hlen, sizeof path, path, &rlen);
  dm_handle_free(hanp, hlen);
  if (rc != 0) {
    perror("dm_handle_to_path");
    return 1;
  }
  printf("path %s\n", path);

  int fd = open(argv[1], O_RDONLY);
  char value[64] = {0};
  uint32_t fieldlen = 0, buflen = sizeof value - 1;
  rc = fd < 0 ? -1 : KxApi_GetExternalRep(fd, 0, 0, "BLOB", &fieldlen, &buflen, value);
  if (fd >= 0) close(fd);
  if (rc != 0) {
    fprintf(stderr, "KxApi_GetExternalRep: %s\n", rc > 0 ? strerror(rc) : "open failed");
    return 1;
  }
  printf("BLOB %.*s\n", (int)buflen, value);

  struct vdpol_hndl_s *policies = NULL;
  vdpol_close(&policies); /* null is accepted */
  return 0;
}
