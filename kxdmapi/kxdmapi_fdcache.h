/* Open-file cache, object references and opening files by handle.
 *
 * A handle that a caller has declared held (dm_obj_ref_hold) gets one entry of
 * the 8-entry table dm_fd_cache, together with the descriptor opened for it by
 * dm_open_by_handle, so that repeated calls on a held object reuse one
 * descriptor. Unheld objects are opened and closed on every call.
 *
 * Ownership: a descriptor from dm_open_by_handle belongs to the cache when the
 * handle is held (closed at the last release or a flush) and to the caller
 * otherwise; either way the caller hands it back with exactly one
 * dm_close_by_handle for the same handle. Nothing here allocates memory.
 *
 * Locking: dm_fd_cache_lock guards the table; every lookup, hold, release,
 * update and flush holds it for its whole run and takes no other lock of the
 * library. Opening resolves the mount point (mount cache lock) without holding
 * dm_fd_cache_lock. dm_fdcache_init writes the table without the lock and is
 * meant to run before other threads use the library.
 */
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DM_FD_CACHE_SIZE 8

/* In use exactly when fd_handlen is non-zero. A free entry has zero handle
 * bytes, length 0, count 0 and descriptor -1. */
typedef struct dm_fd_entry {
  dm_handle_t fd_handle; /* the held handle's bytes */
  uint64_t fd_handlen;   /* the handle's length; 0 marks a free entry */
  uint32_t fd_count;     /* number of holds on the handle */
  int32_t fd_fd;         /* descriptor opened for the handle, -1 when none */
} dm_fd_entry_t;

extern dm_fd_entry_t dm_fd_cache[DM_FD_CACHE_SIZE];
extern int32_t dm_fd_cache_initialized; /* 0 until the table is initialised */
extern pthread_mutex_t dm_fd_cache_lock;

/* Frees all 8 entries and sets the initialised flag; takes no lock. */
void dm_fdcache_init(void);
/* 1 and the entry's descriptor (maybe -1) in *fdp when the handle is held;
 * 0 when not held or not initialised. */
int dm_fdcache_search(const void *hanp, size_t hlen, int *fdp);
/* Stores fd in the held handle's entry; nothing when it is not held. */
void dm_fdcache_update_fd(const void *hanp, size_t hlen, int fd);
/* 1 when held (count raised or entry taken), 0 when all 8 entries are in use
 * by other handles. */
int dm_fdcache_handle_hold(const void *hanp, size_t hlen);
/* 1 when the handle was held (the last release closes its descriptor and
 * frees the entry), 0 when not held or not initialised. */
int dm_fdcache_handle_rele(const void *hanp, size_t hlen);
/* Closes every held descriptor and frees every entry. */
void dm_fdcache_flush(void);

/* Object references; the session and token are ignored.
 * hold: 0; -1 with EBADF (invalid or global handle) or ENOMEM (no entry).
 * rele: 0; -1 with EBADF or ENOENT (not held); the global handle flushes all.
 * query: 1 held, 0 not held; -1 with EBADF. errno is 0 on success. */
int dm_obj_ref_hold(dm_sessid_t sid, dm_token_t token, const void *hanp, size_t hlen);
int dm_obj_ref_rele(dm_sessid_t sid, dm_token_t token, const void *hanp, size_t hlen);
int dm_obj_ref_query(dm_sessid_t sid, dm_token_t token, const void *hanp, size_t hlen);

/* A descriptor of the handle's file, or -1 with errno (EBADF for an invalid
 * handle, ENOENT when its file system is not mounted). A held handle's cached
 * descriptor is returned as is; flags 0 open with O_NONBLOCK alone. */
int dm_open_by_handle(const void *hanp, size_t hlen, int flags);
/* open64 of the handle's special path; the caller owns the descriptor. */
int dm_open_by_handle_nocache(const void *hanp, size_t hlen, int flags);
/* Hands back a descriptor from dm_open_by_handle: closes it unless it is the
 * held handle's cached one. */
void dm_close_by_handle(const void *hanp, size_t hlen, int fd);
/* close(fd) and nothing else. */
void dm_close_by_handle_nocache(const void *hanp, size_t hlen, int fd);

#ifdef __cplusplus
}
#endif
