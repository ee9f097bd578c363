// What each request the tool sends per directory, and the stripping of a
// file's policy information that it does per file in a managed directory,
// cost in microseconds, against an fstatat: the part of the walk's time
// that the requests, not the walk, set. Run under the simulator (or on a
// real kxfs file system) on a directory of the file system, where it makes
// and removes a probe file:
//   kxsim run -- request_cost DIR [ROUNDS]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "extapi/kxapi.h"
#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi.h"

namespace {

dm_attrname_t attr_name(const char *name) {
  dm_attrname_t attr{};
  std::memcpy(attr.an_chars, name, std::strlen(name));
  return attr;
}

template <typename Request>
double per_call(long rounds, Request request) {
  const auto start = std::chrono::steady_clock::now();
  for (long i = 0; i < rounds; ++i) request();
  const std::chrono::duration<double, std::micro> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / static_cast<double>(rounds);
}

void print(const char *what, double micros) { std::printf("  %-52s %7.2f us\n", what, micros); }

template <typename Request>
void report(const char *what, long rounds, Request request) {
  print(what, per_call(rounds, request));
}

struct RepRemoval {
  const char *key;
  uint32_t op_flags;
};
constexpr RepRemoval kRepRemovals[] = {{"BLOB", 4}, {"OBJF", 4}, {"REPL", 0}};

// What the tool's remove_vdpolicy_info sends for a file, on its own descriptor.
void strip(const char *path, const dm_attrname_t &bfst) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  for (const auto &rep : kRepRemovals) KxApi_RemoveExternalRep(fd, 0, rep.op_flags, rep.key);
  dm_remove_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, 0, &bfst);
  dm_eventset_t none = 0, managed = DM_EVENT_MANAGED_MASK;
  dm_update_eventlist_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &none, &managed, DM_EVENT_MAX);
  close(fd);
}

// Gives the file what a restored managed file carries: "BFST", the three
// representations and the policy engine's event bits.
void make_managed(int fd, const dm_attrname_t &bfst) {
  const unsigned char value[32] = {};
  dm_set_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &bfst, 0, sizeof value, value);
  for (const auto &rep : kRepRemovals) {
    KxApi_SetExternalRep(fd, 0, 0, 0, 0, rep.key, sizeof value, value, 0, nullptr);
  }
  dm_eventset_t managed = DM_EVENT_MANAGED_MASK;
  dm_set_eventlist_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &managed, DM_EVENT_MAX);
}

void report_per_file(const char *dir, long rounds, const dm_attrname_t &bfst) {
  const std::string probe = std::string(dir) + "/.request_cost_probe";
  const int fd = open(probe.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    std::perror(probe.c_str());
    return;
  }
  std::printf("per file stripped in a managed directory (remove_vdpolicy_info)\n");
  report("open and close of the file", rounds, [&] { close(open(probe.c_str(), O_RDONLY)); });
  report("strip, nothing to strip (open, 5 requests, close)", rounds,
         [&] { strip(probe.c_str(), bfst); });
  const long few = rounds / 4 + 1;
  const double setting = per_call(few, [&] { make_managed(fd, bfst); });
  const double both = per_call(few, [&] {
    make_managed(fd, bfst);
    strip(probe.c_str(), bfst);
  });
  print("strip of a managed file (BFST, 3 reps, event bits)", both - setting);
  close(fd);
  unlink(probe.c_str());
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
  report_per_file(dir, rounds, bfst);
  return 0;
}
