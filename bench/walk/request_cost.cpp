// What each request the tool sends per directory costs, in microseconds,
// against an fstatat of the same directory: the part of the walk's time
// that the requests, not the walk, set. Run under the simulator (or on a
// real kxfs file system) on a directory of the file system:
//   kxsim run -- request_cost DIR [ROUNDS]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi.h"

namespace {

dm_attrname_t attr_name(const char *name) {
  dm_attrname_t attr{};
  std::memcpy(attr.an_chars, name, std::strlen(name));
  return attr;
}

template <typename Request>
void report(const char *what, long rounds, Request request) {
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < rounds; ++i) request();
  const std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
  std::printf("  %-44s %7.2f us\n", what, spent.count() / static_cast<double>(rounds));
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: request_cost DIR [ROUNDS]\n");
    return 2;
  }
  const char *dir = argv[1];
  const long rounds = argc > 2 ? std::atol(argv[2]) : 20000;
  const int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  char *version = nullptr;
  if (fd < 0 || dm_init_service(&version) != 0) {
    std::perror(dir);
    return 1;
  }
  const dm_attrname_t bfst = attr_name("BFST");
  const dm_attrname_t vdea = attr_name("VDEA");
  kxdmapi::DmHandle handle;
  if (dm_path_to_handle(dir, &handle.hanp, &handle.hlen) != 0) {
    std::perror("dm_path_to_handle");
    return 1;
  }
  unsigned char value[DM_ATTR_VALUE_MAX];
  size_t len = 0;
  std::printf("per call, %ld rounds, on %s\n", rounds, dir);
  report("fstatat (the floor walker's per-entry call)", rounds, [&] {
    struct stat st;
    fstatat(AT_FDCWD, dir, &st, AT_SYMLINK_NOFOLLOW);
  });
  report("BFST by descriptor (dm_get_dmattr_fd)", rounds, [&] {
    dm_get_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &bfst, sizeof value, value, &len);
  });
  report("path to handle (dm_path_to_handle)", rounds, [&] {
    kxdmapi::DmHandle h;
    dm_path_to_handle(dir, &h.hanp, &h.hlen);
  });
  report("VDEA by handle (dm_get_dmattr)", rounds, [&] {
    dm_get_dmattr(DM_NO_SESSION, handle.hanp, handle.hlen, DM_NO_TOKEN, &vdea, sizeof value, value,
                  &len);
  });
  return 0;
}
