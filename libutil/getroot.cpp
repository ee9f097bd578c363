// Installation directories: a fixed table resolved once per process.
#include "libutil/getroot.h"

#include <pthread.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "libutil/dopanic.h"
#include "libutil/mutex.h"
#include "libutil/snprintf.h"

static const char kx_source_path[] = "libutil/getroot";

namespace {

struct root_info {
  const char *ri_path;               // resolved path; null until resolved
  const char *ri_env;                // overriding environment variable, or null
  const char *ri_default;            // built-in default, or null
  struct root_info *ri_parent;       // the entry this one lies under, or null
  const char *ri_my_dir;             // sub-directory under the parent, or null
  char ri_buf[KXFS_ROOT_PATH_SIZE];  // storage for a joined path
};
using root_info_t = struct root_info;

constexpr int kRootCount = 13;

// Every parent precedes its children, so one pass in order resolves all.
root_info_t root[kRootCount] = {
    {nullptr, "KXFSROOT", "/usr/kxfs", nullptr, nullptr, {}},  // 0 root
    {nullptr, "KXFSCONF", nullptr, &root[0], "config", {}},    // 1 config
    {nullptr, "KXFSLOGS", nullptr, &root[0], nullptr, {}},     // 2 log root
    {nullptr, nullptr, nullptr, &root[2], "data", {}},         // 3
    {nullptr, nullptr, nullptr, &root[2], "debug", {}},        // 4
    {nullptr, nullptr, nullptr, &root[2], "ras", {}},          // 5
    {nullptr, nullptr, nullptr, &root[2], "zestats", {}},      // 6
    {nullptr, nullptr, nullptr, &root[0], "bin", {}},          // 7
    {nullptr, nullptr, nullptr, &root[0], "help", {}},         // 8
    {nullptr, nullptr, nullptr, &root[0], "lib", {}},          // 9
    {nullptr, nullptr, nullptr, &root[1], "oem", {}},          // 10
    {nullptr, nullptr, nullptr, &root[0], "install", {}},      // 11
    {nullptr, nullptr, nullptr, &root[2], "ldap", {}},         // 12
};

pthread_mutex_t get_kxfs_root_mtx = PTHREAD_MUTEX_INITIALIZER;

// Entry 0 is published last (release) so that a getter that sees it set
// without the lock (acquire) also sees every other entry resolved.
const char *root_published() {
  return __atomic_load_n(&root[0].ri_path, __ATOMIC_ACQUIRE);
}

// The environment's text is copied: a later setenv/putenv must not change a
// path already handed out. The copy lives as long as the process.
const char *env_path(const char *name) {
  const char *value = getenv(name);
  if (value == nullptr) return nullptr;
  const char *copy = strdup(value);
  return copy != nullptr ? copy : value;
}

const char *join_path(root_info_t *rp, const char *parent_path) {
  const int n = KxSnprintf(rp->ri_buf, sizeof rp->ri_buf, "%s/%s", parent_path, rp->ri_my_dir);
  if (n < 0) rp->ri_buf[0] = '\0';
  if (n < 0 || static_cast<size_t>(n) >= sizeof rp->ri_buf) {
    (void)fprintf(stderr, "Pathname too long: %s/%s: truncated to %s\n", parent_path, rp->ri_my_dir,
                  rp->ri_buf);
  }
  return rp->ri_buf;
}

// Entry 0's own path is passed separately because it is stored last.
const char *resolve(root_info_t *rp, const char *root_path) {
  const char *parent_path = nullptr;
  if (rp->ri_parent != nullptr) {
    parent_path = rp->ri_parent == &root[0] ? root_path : rp->ri_parent->ri_path;
  }
  if (rp->ri_env != nullptr) {
    if (const char *path = env_path(rp->ri_env); path != nullptr) return path;
  }
  if (rp->ri_default != nullptr) return rp->ri_default;
  if (rp->ri_my_dir != nullptr && parent_path != nullptr) return join_path(rp, parent_path);
  rp->ri_path = parent_path;
  KX_ASSERT(rp->ri_path != NULL);  // NOLINT(modernize-use-nullptr): the text is reported
  return rp->ri_path;
}

const char *get(int index) {
  if (root_published() == nullptr) initialize_roots();
  return root[index].ri_path;
}

}  // namespace

extern "C" {

void initialize_roots(void) {
  kx::MutexLock lock(&get_kxfs_root_mtx);
  if (root_published() != nullptr) return;
  const char *root_path = resolve(&root[0], nullptr);
  for (int i = 1; i < kRootCount; ++i) {
    if (root[i].ri_path == nullptr) root[i].ri_path = resolve(&root[i], root_path);
  }
  __atomic_store_n(&root[0].ri_path, root_path, __ATOMIC_RELEASE);
}

const char *GetKxfsRoot(void) {
  return get(0);
}
const char *GetKxfsConfigDir(void) {
  return get(1);
}
const char *GetKxfsLogRoot(void) {
  return get(2);
}
const char *GetKxfsDataDir(void) {
  return get(3);
}
const char *GetKxfsDebugDir(void) {
  return get(4);
}
const char *GetKxfsRasDir(void) {
  return get(5);
}
const char *GetKxfsZestatsDir(void) {
  return get(6);
}
const char *GetKxfsBinDir(void) {
  return get(7);
}
const char *GetKxfsHelpDir(void) {
  return get(8);
}
const char *GetKxfsLibDir(void) {
  return get(9);
}
const char *GetKxfsOemDir(void) {
  return get(10);
}
const char *GetKxfsInstallDir(void) {
  return get(11);
}
const char *GetKxfsLdapDir(void) {
  return get(12);
}

}  // extern "C"
