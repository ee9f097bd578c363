// Fuzzes the objs.conf reader: the input is written to objs.conf in a
// private configuration directory, parsed, and checked against a policy.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libutil/getroot.h"
#include "libutil/kxlog.h"
#include "vdpolicy/lib/check/vd_was_lib.h"

namespace {

std::string g_dir;
std::string g_path;

void RemoveConfDir() {
  unlink(g_path.c_str());
  rmdir(g_dir.c_str());
}

void Quiet(int, const char *, ...) {}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Memory-backed when possible: a disk-backed file costs a write-back per run.
  static char shm_dir[] = "/dev/shm/fuzz_objs_config.XXXXXX";
  static char tmp_dir[] = "/tmp/fuzz_objs_config.XXXXXX";
  const char *dir = mkdtemp(shm_dir);
  if (dir == nullptr) dir = mkdtemp(tmp_dir);
  if (dir == nullptr) abort();
  setenv("KXFSCONF", dir, 1);  // before the directories are resolved
  g_dir = GetKxfsConfigDir();
  g_path = g_dir + "/objs.conf";
  atexit(RemoveConfDir);
  __kxfs_logfn = Quiet;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  int fd = open(g_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) abort();
  if (write(fd, data, size) != static_cast<ssize_t>(size)) abort();
  close(fd);

  cla_was_config_info info;
  char *err = nullptr;
  int rc = parse_objs_config_file(g_path.c_str(), &info, &err);
  if ((rc == 0) != (err == nullptr)) __builtin_trap();
  if (rc != 0 && info.config_count != 0) __builtin_trap();
  std::string id, ns;
  for (int i = 0; i < info.config_count; ++i) {
    const CLA_PARAM_T *c = info.config[i];
    if (c->hosts_cnt < 1 || c->hosts_cnt > CLA_MAX_HOST_PORTS) __builtin_trap();
    if (c->buckets_cnt < 1 || c->buckets_cnt > CLA_MAX_BUCKETS) __builtin_trap();
    if (i == 0) {
      id = c->cloud_id;
      ns = c->buckets[c->buckets_cnt - 1];
    }
  }
  // The first configuration's identifier (which may be empty) with one of
  // its namespaces must pass the policy check; without one, nothing passes.
  int expected = info.config_count > 0 ? 0 : -1;
  free(err);
  free_was_config_info(&info);
  char msg[4096];
  if (verify_was_policy_params(id.c_str(), ns.c_str(), msg, sizeof msg) != expected)
    __builtin_trap();
  return 0;
}
