// The policy directory of each mounted file system and the time it last
// changed: the one stat per lookup that tells whether cached policies are
// still those on disk.
#include "vdpolicy/lib/store/policy_dir_cache.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "kxdmapi/kxdmapi_paths.h"
#include "libutil/kxlog.h"
#include "libutil/mutex.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/store/policy_store.h"

extern "C" {
pthread_mutex_t policy_dir_lock = PTHREAD_MUTEX_INITIALIZER;
int pol_dir_cnt;
pol_dir_cache_entry_t *pol_dir_cache;
}

namespace {

constexpr uint64_t kNanosPerSecond = 1000000000ULL;

pol_dir_cache_entry_t *find_entry(dm_fsid_t fsid) {
  for (int i = 0; i < pol_dir_cnt; ++i)
    if (pol_dir_cache[i].pdc_fsid == fsid) return &pol_dir_cache[i];
  return nullptr;
}

// The directory's modification time in nanoseconds; false when it cannot
// be stat'ed.
bool dir_time(const pol_dir_cache_entry_t *entry, uint64_t *nanos) {
  struct stat st {};
  if (entry == nullptr || stat(entry->pdc_dir, &st) != 0) return false;
  *nanos = static_cast<uint64_t>(st.st_mtim.tv_sec) * kNanosPerSecond +
           static_cast<uint64_t>(st.st_mtim.tv_nsec);
  return true;
}

void record_dir_time(dm_fsid_t fsid) {
  pol_dir_cache_entry_t *entry = find_entry(fsid);
  uint64_t now = 0;
  if (dir_time(entry, &now)) entry->pdc_dir_time = now;
}

char *format_key_name(uint64_t key) {
  char name[32];
  (void)std::snprintf(name, sizeof name, "key_%ld", static_cast<long>(key));
  return vdpol::dup_text(name);
}

}  // namespace

extern "C" {

void free_pol_dir_cache_locked(void) {
  for (int i = 0; i < pol_dir_cnt; ++i) {
    std::free(pol_dir_cache[i].pdc_dir);
    std::free(pol_dir_cache[i].pdc_mount);
  }
  std::free(pol_dir_cache);
  pol_dir_cache = nullptr;
  pol_dir_cnt = 0;
}

int build_pol_dir_cache_locked(void) {
  VDPOL_STORE_TRACE("Rebuilding mnt cache old size %d\n", pol_dir_cnt);
  // The old entries go first: a cache that could not be rebuilt is empty,
  // never stale, and the next lookup tries again.
  free_pol_dir_cache_locked();
  int count = 0;
  dm_mnt_cache_t *report = dm_report_mnt_cache(&count);
  if (report == nullptr) {
    __kxfs_logfn(KXLOG_ERROR,
                 "build_pol_dir_cache_locked: dm_report_mnt_cache failed to alloc memory.\n");
    return pol_dir_cnt;
  }
  const auto n = static_cast<size_t>(count);
  auto *entries = static_cast<pol_dir_cache_entry_t *>(
      vdpol::mem_calloc(n != 0 ? n : 1, sizeof(pol_dir_cache_entry_t)));
  int filled = 0;
  if (entries == nullptr) __kxfs_logfn(KXLOG_ERROR, "build_pol_dir_cache_locked: calloc failed.\n");
  for (size_t i = 0; i < n; ++i) {
    char *dir = nullptr;
    if (entries != nullptr && asprintf(&dir, POLICY_DIR_FORMAT, report[i].cached_mnt) >= 0) {
      entries[filled++] = {dir, report[i].cached_mnt, report[i].cached_fsid, 0};
    } else {
      std::free(report[i].cached_mnt);
    }
  }
  std::free(report);
  pol_dir_cache = entries;
  pol_dir_cnt = filled;
  VDPOL_STORE_TRACE("New mnt cache size %d\n", pol_dir_cnt);
  return pol_dir_cnt;
}

int build_pol_dir_cache(void) {
  kx::MutexLock lock(&policy_dir_lock);
  return build_pol_dir_cache_locked();
}

void _check_policy_cache(dm_fsid_t fsid) {
  kx::MutexLock lock(&policy_dir_lock);
  bool rebuilt = false;
  if (pol_dir_cnt == 0 || dm_check_mnt_cache_stale() != 0) {
    build_pol_dir_cache_locked();
    rebuilt = true;
  }
  // The mount cache may have been brought up to date by another caller of
  // the DMAPI library, hiding a newly mounted file system from the check
  // above: one that is not listed makes the list be read again.
  if (!rebuilt && fsid != 0 && find_entry(fsid) == nullptr) build_pol_dir_cache_locked();
  pol_dir_cache_entry_t *entry = find_entry(fsid);
  uint64_t now = 0;
  if (dir_time(entry, &now) && now == entry->pdc_dir_time) return;
  if (fsid != 0) {
    vdpol::mark_fs_stale_locked(fsid);
    record_dir_time(fsid);
  }
  purge_stale_policies_locked(fsid);
}

void mark_policy_cache_stale(dm_fsid_t fsid) {
  kx::MutexLock lock(&policy_lock);
  kx::MutexLock dir_lock(&policy_dir_lock);
  if (fsid == 0) return;
  vdpol::mark_fs_stale_locked(fsid);
  record_dir_time(fsid);
}

int construct_policy_path(dm_fsid_t fsid, const char * /*mount*/, uint64_t key, const char *name,
                          PolicyConfig_t *config, char **dir_out, char **file_out) {
  kx::MutexLock lock(&policy_dir_lock);
  const pol_dir_cache_entry_t *entry = find_entry(fsid);
  if (entry == nullptr || dir_out == nullptr || file_out == nullptr) return -1;
  char *file = name != nullptr ? vdpol::dup_text(name) : format_key_name(key);
  char *dir = vdpol::dup_text(entry->pdc_dir);
  if (file == nullptr || dir == nullptr) {
    std::free(file);
    std::free(dir);
    return -1;
  }
  if (config != nullptr && config->polcfg_mount == nullptr) {
    config->polcfg_mount = vdpol::dup_text(entry->pdc_mount);
    VDPOL_STORE_TRACE("Setting policy mount point for %s to %s\n", file, entry->pdc_mount);
  }
  *dir_out = dir;
  *file_out = file;
  return 0;
}

}  // extern "C"
