/* DMAPI handles: make, take apart, check, compare, hash and free.
 *
 * A handle is passed as (hanp, hlen). Three forms exist: the global handle
 * (DM_GLOBAL_HANP, DM_GLOBAL_HLEN), a file-system handle (8 bytes: the fsid)
 * and a file handle (24 bytes: fsid, big-endian fid length 14, zero pad,
 * big-endian generation, big-endian inode masked with 0x7F807FFFFFFFFFFF).
 *
 * Ownership: every handle returned through (void **hanpp, size_t *hlenp) is
 * one malloc'ed block of exactly *hlenp bytes owned by the caller, released
 * with dm_handle_free. Nothing is allocated on a failure path (*hanpp is
 * then null). All functions are reentrant and thread-safe.
 *
 * Results: 0 for success, -1 with errno for failure, unless stated.
 */
#pragma once

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Classification results of dm_crack_handle. */
#define DM_HANDLE_INVALID 0
#define DM_HANDLE_GLOBAL 1
#define DM_HANDLE_FILESYSTEM 2
#define DM_HANDLE_FILE 3

/* Mask applied to inode numbers stored in file handles. */
#define DM_HANDLE_INO_MASK 0x7F807FFFFFFFFFFFULL

/* Bytes before the first NUL of s, at most n; s is read only that far. */
size_t dm_strnlen(const char *s, size_t n);

/* 1 when (hanp, hlen) is the global handle, else 0. */
int dm_handle_is_global(const void *hanp, size_t hlen);

/* Releases a handle returned by the library; hlen is ignored. */
void dm_handle_free(void *hanp, size_t hlen);

/* One of DM_HANDLE_*; each output may be null and is written only for the
 * forms that carry it. Never sets errno. */
int dm_crack_handle(const void *hanp, size_t hlen, dm_fsid_t *fsidp, dm_ino_t *inop,
                    dm_igen_t *igenp);
/* 1 when dm_crack_handle gives non-zero (the global handle included). */
dm_boolean_t dm_handle_is_valid(const void *hanp, size_t hlen);

/* EBADF unless a file-system or file handle (fsid) / file handle (ino, gen). */
int dm_handle_to_fsid(const void *hanp, size_t hlen, dm_fsid_t *fsidp);
int dm_handle_to_ino(const void *hanp, size_t hlen, dm_ino_t *inop);
int dm_handle_to_igen(const void *hanp, size_t hlen, dm_igen_t *igenp);

/* New 8-byte handle of the file system of a file-system or file handle. */
int dm_handle_to_fshandle(const void *hanp, size_t hlen, void **fshanpp, size_t *fshlenp);

/* New file-system handle (8 bytes). *hlenp is set even when malloc fails. */
int dm_make_fshandle(const dm_fsid_t *fsidp, void **hanpp, size_t *hlenp);
/* New 24-byte file handle. *hlenp is set even when malloc fails. */
int dm_make_handle(const dm_fsid_t *fsidp, const dm_ino_t *inop, const dm_igen_t *igenp,
                   void **hanpp, size_t *hlenp);
/* Fills the caller's record (pads zeroed); returns the length, 24. */
size_t dm_make_handle_nocopy(const dm_fsid_t *fsidp, const dm_ino_t *inop, const dm_igen_t *igenp,
                             dm_handle_t *handlep);

/* New handle of the object open on fd (a descriptor inside a kxfs mount);
 * the ioctl's errno is kept on failure. */
int dm_fd_to_handle(int fd, void **hanpp, size_t *hlenp);

/* Shorter handles order first (the result is hlen1 - hlen2); equal lengths
 * compare as unsigned bytes (-1, 0, 1). */
int dm_handle_cmp(const void *hanp1, size_t hlen1, const void *hanp2, size_t hlen2);

/* Plain 32-bit wrapping sum of the bytes; 0 for the global handle. */
uint32_t dm_handle_hash(const void *hanp, size_t hlen);

#ifdef __cplusplus
}
#endif
