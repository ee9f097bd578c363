// The mount cache: one record per mounted "kxfs" file system, keyed by fsid.
#include "kxdmapi/kxdmapi_private.h"

#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <cstring>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_init.h"
#include "kxdmapi/kxdmapi_wire.h"
#include "libutil/dopanic.h"
#include "libutil/mutex.h"
#include "libutil/unique_fd.h"

// Panic reports name the unit under which support tools know the cache.
static const char kx_source_path[] = "kxdmapi/kxdmapi_handles";

extern "C" {
pthread_mutex_t dm_mount_cache_lock = PTHREAD_MUTEX_INITIALIZER;
mnt_cache_t *mount_cache = nullptr;
mnt_cache_t **mount_cache_tab = nullptr;
uint32_t mount_cache_tab_size = 0;
dm_mnt_change_time_t saved_change_time = {0, 0};
}

namespace {

using kx::UniqueFd;

constexpr uint32_t kMinBuckets = 32;
constexpr uint64_t kRenameTrackingBit = 1u << 8;

void free_record(mnt_cache_t *rec) {
  std::free(rec->mnt_dir);
  std::free(rec->mnt_fsname);
  std::free(rec);
}

void free_cache() {
  std::free(mount_cache_tab);
  mount_cache_tab = nullptr;
  mount_cache_tab_size = 0;
  while (mount_cache != nullptr) {
    mnt_cache_t *next = mount_cache->mnt_next;
    free_record(mount_cache);
    mount_cache = next;
  }
}

// A record for one mount entry, or null when memory ran out. Takes the
// strings as copies: the mount table's buffer is reused by the next read.
mnt_cache_t *make_record(const struct mntent *ent, const void *fshanp) {
  auto *rec = static_cast<mnt_cache_t *>(std::calloc(1, sizeof(mnt_cache_t)));
  if (rec == nullptr) return nullptr;
  rec->mnt_dir = strdup(ent->mnt_dir);
  if (ent->mnt_fsname != nullptr) rec->mnt_fsname = strdup(ent->mnt_fsname);
  if (rec->mnt_dir == nullptr || (ent->mnt_fsname != nullptr && rec->mnt_fsname == nullptr)) {
    free_record(rec);
    return nullptr;
  }
  std::memcpy(&rec->mnt_fsid, fshanp, sizeof rec->mnt_fsid);
  return rec;
}

// Reads "/proc/mounts" into the record list. Returns 1 or -1 as the last
// resolution attempt went (1 when none was made), -1 on allocation failure.
int read_mount_table(size_t *count) {
  FILE *table = setmntent("/proc/mounts", "r");
  if (table == nullptr) {
    KXDMAPI_TRACE("dm_build_mnt_cache: could not setmntent(%s)\n", "/proc/mounts");
    return -1;
  }
  int result = 1;
  while (const struct mntent *ent = getmntent(table)) {
    if (ent->mnt_dir == nullptr || ent->mnt_type == nullptr ||
        std::strcmp(ent->mnt_type, "kxfs") != 0)
      continue;
    void *fshanp = nullptr;
    size_t fshlen = 0;
    if (dm_path_to_fshandle(ent->mnt_dir, &fshanp, &fshlen) != 0) {
      KXDMAPI_TRACE("dm_build_mnt_cache: dm_path_to_fshandle for <%s> said %d\n", ent->mnt_dir,
                    errno);
      result = -1;
      continue;
    }
    mnt_cache_t *rec = make_record(ent, fshanp);
    dm_handle_free(fshanp, fshlen);
    if (rec == nullptr) {
      result = -1;
      break;
    }
    rec->mnt_next = mount_cache;
    mount_cache = rec;
    result = 1;
    ++*count;
  }
  endmntent(table);
  return result;
}

void init_mount_cache_data(mnt_cache_t *rec) {
  const char *fsname = rec->mnt_fsname != nullptr ? rec->mnt_fsname : "";
  UniqueFd fd(open(rec->mnt_dir, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) {
    KXDMAPI_TRACE("InitMountCacheData: open(%s) failed (%d)\n", rec->mnt_dir, errno);
    KXDMAPI_TRACE("InitMountCacheData(fs %s): failed", fsname);
    return;
  }
  unsigned char data[KXDMAPI_FS_DATA_LEN] = {};
  if (ioctl(fd.get(), KXDMAPI_IOC_FS_DATA, data) != 0) {
    KXDMAPI_TRACE("InitMountCacheData: F_STATFS(%s) failed (%d)\n", rec->mnt_dir, errno);
    KXDMAPI_TRACE("InitMountCacheData(fs %s): failed", fsname);
    return;
  }
  rec->mnt_mcd.mcd_valid = 1;
  rec->mnt_mcd.mcd_rename_tracking =
      (kxdmapi::get_native<uint64_t>(data, 0) & kRenameTrackingBit) ? 1 : 0;
}

void build_buckets(size_t count) {
  mount_cache_tab_size = dm_mnt_cache_tab_size_for(count);
  // The panic text is matched by support tools: keep the spelling.
  // clang-format off
  KX_ASSERT((mount_cache_tab_size & (mount_cache_tab_size-1)) == 0);
  // clang-format on
  mount_cache_tab =
      static_cast<mnt_cache_t **>(std::calloc(mount_cache_tab_size, sizeof(mnt_cache_t *)));
  if (mount_cache_tab == nullptr) {
    // Lookups walk the list instead.
    mount_cache_tab_size = 0;
    return;
  }
  for (mnt_cache_t *rec = mount_cache; rec != nullptr; rec = rec->mnt_next) {
    uint32_t bucket = dm_mnt_cache_bucket(rec->mnt_fsid, mount_cache_tab_size);
    rec->mnt_htab_next = mount_cache_tab[bucket];
    mount_cache_tab[bucket] = rec;
  }
}

mnt_cache_t *find_record(uint64_t fsid) {
  if (mount_cache_tab_size != 0) {
    mnt_cache_t *rec = mount_cache_tab[dm_mnt_cache_bucket(fsid, mount_cache_tab_size)];
    while (rec != nullptr && rec->mnt_fsid != fsid) rec = rec->mnt_htab_next;
    return rec;
  }
  mnt_cache_t *rec = mount_cache;
  while (rec != nullptr && rec->mnt_fsid != fsid) rec = rec->mnt_next;
  return rec;
}

}  // namespace

extern "C" uint32_t dm_mnt_cache_tab_size_for(size_t nrecords) {
  uint64_t floor_pow2 = 0;
  if (nrecords != 0) {
    floor_pow2 = 1;
    while (floor_pow2 * 2 <= nrecords) floor_pow2 *= 2;
  }
  uint64_t size = floor_pow2 * 4;
  if (size < kMinBuckets) size = kMinBuckets;
  // More buckets than 2^31 would never be allocated anyway.
  if (size > (uint64_t{1} << 31)) size = uint64_t{1} << 31;
  return static_cast<uint32_t>(size);
}

extern "C" uint32_t dm_mnt_cache_bucket(uint64_t fsid, uint32_t size) {
  uint64_t x = fsid;
  x ^= x >> 32;
  x ^= x >> 16;
  x ^= x >> 8;
  x ^= x >> 4;
  return static_cast<uint32_t>(x & (size - 1u));
}

extern "C" int get_last_mount_change_time(dm_mnt_change_time_t *timep) {
  int fd = __atomic_load_n(&kxdmapi_dmfd, __ATOMIC_ACQUIRE);
  UniqueFd own(fd < 0 ? open(KXDMAPI_MOUNT_CHANGE_DEVICE, O_RDONLY | O_CLOEXEC) : -1);
  if (fd < 0) {
    if (!own.valid()) return -1;
    fd = own.get();
  }
  unsigned char reply[16] = {};
  if (ioctl(fd, KXDMAPI_IOC_MOUNT_CHANGE, reply) != 0) return -1;
  timep->mct_sec = kxdmapi::get_native<uint64_t>(reply, 0);
  timep->mct_usec = kxdmapi::get_native<uint64_t>(reply, 8);
  return 0;
}

extern "C" int dm_build_mnt_cache(void) {
  dm_mnt_change_time_t now{};
  if (get_last_mount_change_time(&now) != 0) {
    KXDMAPI_TRACE("dm_build_mnt_cache: failed to get last change time\n");
    return -1;
  }
  KXDMAPI_TRACE("dm_build_mnt_cache saved_change_time %lu/%lu, last_change_time %lu/%lu\n",
                static_cast<unsigned long>(saved_change_time.mct_sec),
                static_cast<unsigned long>(saved_change_time.mct_usec),
                static_cast<unsigned long>(now.mct_sec), static_cast<unsigned long>(now.mct_usec));
  if (now.mct_sec == saved_change_time.mct_sec && now.mct_usec == saved_change_time.mct_usec) {
    KXDMAPI_TRACE("dm_build_mnt_cache: cache hot\n");
    return 0;
  }
  saved_change_time = now;
  free_cache();
  size_t count = 0;
  int result = read_mount_table(&count);
  for (mnt_cache_t *rec = mount_cache; rec != nullptr; rec = rec->mnt_next)
    init_mount_cache_data(rec);
  build_buckets(count);
  KXDMAPI_TRACE("dm_build_mnt_cache: return %d\n", result);
  return result;
}

extern "C" mnt_cache_t *dm_fshandle_to_mnt_cache_entry(const void *hanp, size_t hlen) {
  dm_fsid_t fsid = 0;
  if (hlen < DM_FSHANDLE_LEN ||
      dm_crack_handle(hanp, hlen, &fsid, nullptr, nullptr) == DM_HANDLE_INVALID)
    return nullptr;
  if (mount_cache == nullptr && dm_build_mnt_cache() < 0) {
    KXDMAPI_TRACE("dm_fshandle_to_filesystem: failed cache build error\n");
    return nullptr;
  }
  for (;;) {
    if (mnt_cache_t *rec = find_record(fsid)) {
      KXDMAPI_TRACE("dm_fshandle_to_mnt_cache_entry: success\n");
      return rec;
    }
    // Only a rebuild that found a changed table can make the lookup succeed.
    if (dm_build_mnt_cache() != 1) {
      KXDMAPI_TRACE("dm_fshandle_to_mnt_cache_entry: failed, errno/%d\n", errno);
      return nullptr;
    }
  }
}

extern "C" int dm_check_mnt_cache_stale(void) {
  kx::MutexLock lock(&dm_mount_cache_lock);
  dm_mnt_change_time_t now{};
  if (get_last_mount_change_time(&now) != 0) return -1;
  return now.mct_sec != saved_change_time.mct_sec || now.mct_usec != saved_change_time.mct_usec ? 1
                                                                                                : 0;
}
