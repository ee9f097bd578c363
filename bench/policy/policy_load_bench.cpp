// Policy loads the way vdpostrestore makes them: one vdpol_open + vdpol_load
// + vdp_free + vdpol_close per directory, over many directories sharing a
// few keys on one simulated managed file system. Prints loads per second,
// the number of policy files parsed (it must equal the number of distinct
// policies), and the cost of a cached load against one stat of the policy
// directory, the one look at the disk a cached load must make.
//
// usage: policy_load_bench <kxsim> <work dir> [directories] [keys]
// Run with the simulator preloaded (the bench_policy_load target does).
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "libutil/kxlog.h"
#include "vdpolicy/vd_pol_api.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

int parses = 0;

void count_parses(int, const char *format, ...) {
  if (std::strncmp(format, "parse_policy_file(", 18) == 0) ++parses;
}

bool run(const std::vector<std::string> &args) {
  std::vector<char *> argv;
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return false;
  int status = 0;
  return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The per-directory cycle of the tool; false when a load fails.
bool load_once(const std::string &dir, vdp_key_t key) {
  vdpol_hndl_s *h = nullptr;
  Vdp_t *r = nullptr;
  char err[512];
  bool ok = vdpol_open(dir.c_str(), &h, err, sizeof err) == 0 &&
            vdpol_load(h, nullptr, key, &r, err, sizeof err) == 0;
  if (!ok) std::fprintf(stderr, "load of key %lu in %s failed: %s\n", key, dir.c_str(), err);
  vdp_free(&r);
  vdpol_close(&h);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s <kxsim> <work dir> [directories] [keys]\n", argv[0]);
    return 2;
  }
  const std::string kxsim = argv[1];
  const std::string work = argv[2];
  const int ndirs = argc > 3 ? std::atoi(argv[3]) : 10000;
  const int nkeys = argc > 4 ? std::atoi(argv[4]) : 100;
  const std::string mnt = work + "/fs";
  const std::string poldir = mnt + "/.rep_private/config";
  run({"/bin/rm", "-rf", work});
  mkdir(work.c_str(), 0755);
  setenv("KXSIM_CONFIG", (work + "/kxsim.conf").c_str(), 1);
  if (!run({kxsim, "mkfs", mnt}) || mkdir((mnt + "/.rep_private").c_str(), 0755) != 0 ||
      mkdir(poldir.c_str(), 0755) != 0) {
    std::fprintf(stderr, "cannot make the simulated file system in %s\n", work.c_str());
    return 1;
  }
  std::ofstream(poldir + "/global") << "trunc_age=30d\n";
  for (int k = 0; k < nkeys; ++k)
    std::ofstream(poldir + "/key_" + std::to_string(100 + k))
        << "dedup=" << (k % 2 ? "on" : "off") << ",dedup_pri=" << k << "\n";
  std::vector<std::string> dirs;
  for (int d = 0; d < ndirs; ++d) {
    dirs.push_back(mnt + "/d" + std::to_string(d));
    mkdir(dirs.back().c_str(), 0755);
  }
  __kxfs_debugfn = count_parses;
  facilities[9] = 0x10;

  auto start = Clock::now();
  for (int d = 0; d < ndirs; ++d)
    if (!load_once(dirs[static_cast<size_t>(d)], static_cast<vdp_key_t>(100 + d % nkeys))) return 1;
  const double walk_s = seconds_since(start);

  // A cached load on an open handle, and a bare stat of the policy directory.
  constexpr int kRepeats = 20000;
  vdpol_hndl_s *h = nullptr;
  if (vdpol_open(mnt.c_str(), &h, nullptr, 0) != 0) return 1;
  start = Clock::now();
  for (int i = 0; i < kRepeats; ++i) {
    Vdp_t *r = nullptr;
    if (vdpol_load(h, nullptr, static_cast<vdp_key_t>(100 + i % nkeys), &r, nullptr, 0) != 0)
      return 1;
    vdp_free(&r);
  }
  const double load_ns = seconds_since(start) * 1e9 / kRepeats;
  vdpol_close(&h);
  start = Clock::now();
  struct stat st {};
  for (int i = 0; i < kRepeats; ++i) stat(poldir.c_str(), &st);
  const double stat_ns = seconds_since(start) * 1e9 / kRepeats;

  std::printf("policy loads: %d directories over %d keys on one file system\n", ndirs, nkeys);
  std::printf("  open+load+free+close: %.0f loads/s (%.1f us each)\n", ndirs / walk_s,
              walk_s * 1e6 / ndirs);
  std::printf("  policy files parsed: %d (distinct policies: %d)\n", parses, nkeys + 1);
  std::printf(
      "  cached vdpol_load+vdp_free: %.0f ns = %.2f x stat of the policy directory (%.0f ns)\n",
      load_ns, load_ns / stat_ns, stat_ns);
  run({"/bin/rm", "-rf", work});
  return parses == nkeys + 1 ? 0 : 1;
}
