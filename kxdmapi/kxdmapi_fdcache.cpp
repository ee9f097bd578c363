// The open-file cache: held handles with the descriptor opened for each, so
// that repeated requests on a held object share one descriptor.
#include "kxdmapi/kxdmapi_fdcache.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_paths.h"
#include "libutil/mutex.h"

dm_fd_entry_t dm_fd_cache[DM_FD_CACHE_SIZE];
int32_t dm_fd_cache_initialized = 0;
pthread_mutex_t dm_fd_cache_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr int kNotFound = -1;

// The flag is read without the lock by update and release; atomic access keeps
// that read well defined.
bool cache_initialized() {
  return __atomic_load_n(&dm_fd_cache_initialized, __ATOMIC_ACQUIRE) != 0;
}

void free_entry(dm_fd_entry_t &entry) {
  memset(&entry.fd_handle, 0, sizeof entry.fd_handle);
  entry.fd_handlen = 0;
  entry.fd_count = 0;
  entry.fd_fd = -1;
}

void init_entries() {
  KXDMAPI_TRACE("dm_fdcache_init\n");
  for (dm_fd_entry_t &entry : dm_fd_cache) free_entry(entry);
  __atomic_store_n(&dm_fd_cache_initialized, 1, __ATOMIC_RELEASE);
}

// Only byte strings that fit an entry and can be compared safely are taken:
// the global handle has no bytes behind its pointer, and no valid handle is
// shorter than a file-system handle.
bool storable_handle(const void *hanp, size_t hlen) {
  return hanp != nullptr && !dm_handle_is_global(hanp, hlen) && hlen >= DM_FSHANDLE_LEN &&
         hlen <= DM_HANDLE_MAX;
}

// Index of the entry holding the handle, or kNotFound. Caller holds the lock.
int find_entry(const void *hanp, size_t hlen) {
  if (!storable_handle(hanp, hlen)) return kNotFound;  // never held; not comparable
  for (int i = 0; i < DM_FD_CACHE_SIZE; ++i) {
    const dm_fd_entry_t &entry = dm_fd_cache[i];
    if (entry.fd_handlen != 0 &&
        dm_handle_cmp(&entry.fd_handle, entry.fd_handlen, hanp, hlen) == 0) {
      return i;
    }
  }
  return kNotFound;
}

// An object that may be opened: a file-system or file handle.
bool openable_handle(const void *hanp, size_t hlen) {
  return dm_handle_is_valid(hanp, hlen) && !dm_handle_is_global(hanp, hlen);
}

// After opening fd for a held handle: cache it, unless another thread cached a
// descriptor meanwhile, in which case fd is closed and the cached one is
// returned, so that a held object never has two descriptors in flight.
int cache_opened_fd(const void *hanp, size_t hlen, int fd) {
  // As in dm_fdcache_update_fd: nothing is held before the table exists.
  if (!cache_initialized()) return fd;
  kx::MutexLock lock(&dm_fd_cache_lock);
  const int i = find_entry(hanp, hlen);
  if (i == kNotFound) {
    KXDMAPI_TRACE("dm_fdcache_update_fd: !Found\n");
    return fd;
  }
  dm_fd_entry_t &entry = dm_fd_cache[i];
  if (entry.fd_fd >= 0 && entry.fd_fd != fd) {
    close(fd);
    return entry.fd_fd;
  }
  entry.fd_fd = fd;
  return fd;
}

}  // namespace

void dm_fdcache_init(void) {
  init_entries();
}

int dm_fdcache_search(const void *hanp, size_t hlen, int *fdp) {
  kx::MutexLock lock(&dm_fd_cache_lock);
  if (!cache_initialized()) return 0;
  const int i = find_entry(hanp, hlen);
  if (i == kNotFound) return 0;
  if (fdp != nullptr) *fdp = dm_fd_cache[i].fd_fd;
  return 1;
}

void dm_fdcache_update_fd(const void *hanp, size_t hlen, int fd) {
  if (!cache_initialized()) return;
  kx::MutexLock lock(&dm_fd_cache_lock);
  const int i = find_entry(hanp, hlen);
  if (i == kNotFound) {
    KXDMAPI_TRACE("dm_fdcache_update_fd: !Found\n");
    return;
  }
  dm_fd_cache[i].fd_fd = fd;
}

int dm_fdcache_handle_hold(const void *hanp, size_t hlen) {
  if (!storable_handle(hanp, hlen)) return 0;
  kx::MutexLock lock(&dm_fd_cache_lock);
  if (!cache_initialized()) init_entries();
  int free_slot = kNotFound;
  for (int i = 0; i < DM_FD_CACHE_SIZE; ++i) {
    dm_fd_entry_t &entry = dm_fd_cache[i];
    if (entry.fd_handlen == 0) {
      if (free_slot == kNotFound) free_slot = i;
      continue;
    }
    if (dm_handle_cmp(&entry.fd_handle, entry.fd_handlen, hanp, hlen) == 0) {
      ++entry.fd_count;
      KXDMAPI_TRACE("dm_fdcache_handle_hold: slot %d cnt %u\n", i, entry.fd_count);
      return 1;
    }
  }
  if (free_slot == kNotFound) {
    KXDMAPI_TRACE("dm_fdcache_insert: NoRoom\n");
    return 0;
  }
  dm_fd_entry_t &entry = dm_fd_cache[free_slot];
  entry.fd_fd = -1;
  entry.fd_count = 1;
  entry.fd_handlen = hlen;
  memcpy(&entry.fd_handle, hanp, hlen);
  KXDMAPI_TRACE("dm_fdcache_handle_hold: slot %d cnt 1\n", free_slot);
  return 1;
}

int dm_fdcache_handle_rele(const void *hanp, size_t hlen) {
  if (!cache_initialized()) {
    KXDMAPI_TRACE("dm_fdcache_handle_rele: Empty\n");
    return 0;
  }
  kx::MutexLock lock(&dm_fd_cache_lock);
  const int i = find_entry(hanp, hlen);
  if (i == kNotFound) {
    KXDMAPI_TRACE("dm_fdcache_handle_rele: Fail\n");
    return 0;
  }
  dm_fd_entry_t &entry = dm_fd_cache[i];
  --entry.fd_count;
  KXDMAPI_TRACE("dm_fdcache_handle_rele: slot %d cnt %u fd %d\n", i, entry.fd_count, entry.fd_fd);
  if (entry.fd_count == 0) {
    if (entry.fd_fd >= 0) close(entry.fd_fd);
    free_entry(entry);
  }
  return 1;
}

void dm_fdcache_flush(void) {
  kx::MutexLock lock(&dm_fd_cache_lock);
  if (!cache_initialized()) {
    KXDMAPI_TRACE("dm_fdcache_flush: empty\n");
    return;
  }
  for (dm_fd_entry_t &entry : dm_fd_cache) {
    if (entry.fd_handlen == 0) continue;
    KXDMAPI_TRACE("dm_fdcache_flush: %d\n", entry.fd_fd);
    if (entry.fd_fd >= 0) close(entry.fd_fd);
    free_entry(entry);
  }
  KXDMAPI_TRACE("dm_fdcache_flush: done\n");
}

int dm_obj_ref_hold(dm_sessid_t, dm_token_t, const void *hanp, size_t hlen) {
  // The global handle names no object and has no bytes to hold.
  if (!openable_handle(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE("dm_obj_ref_hold: invalid handle, errno %d\n", errno);
    return -1;
  }
  if (dm_fdcache_handle_hold(hanp, hlen) == 0) {
    KXDMAPI_TRACE("dm_obj_ref_hold: NoCanDo\n");
    errno = ENOMEM;
    return -1;
  }
  KXDMAPI_TRACE("dm_obj_ref_hold: Held\n");
  errno = 0;
  return 0;
}

int dm_obj_ref_rele(dm_sessid_t, dm_token_t, const void *hanp, size_t hlen) {
  if (!dm_handle_is_valid(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE("dm_obj_ref_rele: invalid handle, errno %d\n", errno);
    return -1;
  }
  if (dm_handle_is_global(hanp, hlen)) {
    KXDMAPI_TRACE("dm_obj_ref_rele: Global flush\n");
    dm_fdcache_flush();
    errno = 0;
    return 0;
  }
  if (dm_fdcache_handle_rele(hanp, hlen) == 0) {
    KXDMAPI_TRACE("dm_obj_ref_rele: !Found\n");
    errno = ENOENT;
    return -1;
  }
  KXDMAPI_TRACE("dm_obj_ref_rele: Rele\n");
  errno = 0;
  return 0;
}

int dm_obj_ref_query(dm_sessid_t, dm_token_t, const void *hanp, size_t hlen) {
  if (!dm_handle_is_valid(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE("dm_obj_ref_query: invalid handle, errno %d\n", errno);
    return -1;
  }
  const int held = dm_fdcache_search(hanp, hlen, nullptr);
  KXDMAPI_TRACE(held ? "dm_obj_ref_query: Held\n" : "dm_obj_ref_query: !Held\n");
  errno = 0;
  return held;
}

int dm_open_by_handle(const void *hanp, size_t hlen, int flags) {
  if (!openable_handle(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE("dm_open_by_handle: invalid handle, errno %d\n", errno);
    return -1;
  }
  int held_fd = -1;
  if (dm_fdcache_search(hanp, hlen, &held_fd) && held_fd >= 0) {
    KXDMAPI_TRACE("dm_open_by_handle: return held fd %d\n", held_fd);
    return held_fd;
  }
  int fd = dm_open_by_handle_nocache(hanp, hlen, flags == 0 ? O_NONBLOCK : flags);
  if (fd >= 0) fd = cache_opened_fd(hanp, hlen, fd);
  KXDMAPI_TRACE("dm_open_by_handle: success\n");
  return fd;
}

int dm_open_by_handle_nocache(const void *hanp, size_t hlen, int flags) {
  char mntpnt[DM_PATH_BUFSIZE];
  char path[DM_PATH_BUFSIZE];
  uint64_t key = 0;
  if (dm_format_special_path(hanp, hlen, &key, mntpnt, path) != 0) return -1;
  const int fd = open64(path, flags);
  KXDMAPI_TRACE("dm_open_by_handle_nocache: path<%s> fd %d\n", path, fd);
  return fd;
}

void dm_close_by_handle(const void *hanp, size_t hlen, int fd) {
  const int saved_errno = errno;
  if (!dm_handle_is_valid(hanp, hlen)) {
    KXDMAPI_TRACE("dm_close_by_handle: invalid handle, errno %d\n", EBADF);
    errno = saved_errno;
    return;
  }
  {
    // Look-up and close under one lock, so that another thread cannot cache
    // or drop the entry's descriptor in between.
    kx::MutexLock lock(&dm_fd_cache_lock);
    const int i = cache_initialized() ? find_entry(hanp, hlen) : kNotFound;
    if (i == kNotFound) {
      close(fd);
    } else if (dm_fd_cache[i].fd_fd == fd) {
      KXDMAPI_TRACE("dm_close_by_handle: fd held %d\n", fd);
    } else {
      dm_fd_entry_t &entry = dm_fd_cache[i];
      KXDMAPI_TRACE("dm_close_by_handle: heldfd %d != fd %d\n", entry.fd_fd, fd);
      if (entry.fd_fd >= 0) close(entry.fd_fd);
      close(fd);
      entry.fd_fd = -1;
    }
  }
  KXDMAPI_TRACE("dm_close_by_handle: done\n");
  errno = saved_errno;
}

void dm_close_by_handle_nocache(const void *, size_t, int fd) {
  close(fd);
}
