// need_pol_ras: at most one RAS event a day about each policy, over the 128
// policies heard of most recently.
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "libutil/mutex.h"
#include "vdpolicy/lib/check/policy_validate.h"
#include "vdpolicy/lib/config/policy_memory.h"

extern "C" {
int need_pol_ras_throttle;
pthread_mutex_t pol_ras_lock = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

struct RasEntry {
  uint64_t key;
  char *name;     // owned
  uint32_t time;  // seconds; 0 = free
};

RasEntry pol_ras_table[POL_RAS_ENTRIES];

bool matches(const RasEntry &e, const char *name, uint64_t key) {
  if (e.time == 0) return false;
  if (name != nullptr) return e.name != nullptr && std::strcmp(e.name, name) == 0;
  return e.name == nullptr && e.key == key;
}

// The first free entry, else the one heard of longest ago.
RasEntry &victim() {
  RasEntry *oldest = &pol_ras_table[0];
  for (RasEntry &e : pol_ras_table) {
    if (e.time == 0) return e;
    if (e.time < oldest->time) oldest = &e;
  }
  return *oldest;
}

}  // namespace

extern "C" int need_pol_ras(const char *name, uint64_t key) {
  if (need_pol_ras_throttle == 0) return 1;
  kx::MutexLock lock(&pol_ras_lock);
  const auto now = static_cast<uint32_t>(std::time(nullptr));
  for (RasEntry &e : pol_ras_table) {
    if (!matches(e, name, key)) continue;
    if (now <= e.time + POL_RAS_INTERVAL) return 0;
    e.time = now;
    return 1;
  }
  RasEntry &e = victim();
  e.time = now;
  std::free(e.name);
  e.name = nullptr;
  e.key = key;
  // Without a copy of its name (out of memory) the entry stands for the
  // key; the policy is then let through again, which errs on the side of
  // reporting.
  if (name != nullptr) e.name = vdpol::dup_text(name);
  return 1;
}
