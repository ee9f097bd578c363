/* Common DMAPI (XDSM) types of the client library.
 *
 * Plain C types shared by every kxdmapi header and by data-management
 * applications. The per-call records live next to their calls:
 * dm_stat and dm_fileattr_v2 in kxdmapi_attributes.h, dm_eventtype_t in
 * kxdmapi_events.h, the mount-cache report record in kxdmapi_paths.h.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t dm_sessid_t; /* session id; DM_NO_SESSION without one */
typedef int32_t dm_token_t;   /* event token; DM_NO_TOKEN without one */
typedef uint64_t dm_size_t;
typedef int64_t dm_ssize_t;
typedef int64_t dm_off_t;
typedef uint64_t dm_fsid_t;     /* file-system identifier, never 0 when valid */
typedef uint64_t dm_ino_t;      /* inode number */
typedef uint32_t dm_igen_t;     /* inode generation number */
typedef uint64_t dm_eventset_t; /* bit n = event type n */
typedef uint64_t dm_useraddr_t; /* a caller's address as the driver sees it */
typedef int32_t dm_boolean_t;

#define DM_NO_SESSION ((dm_sessid_t)0)
#define DM_NO_TOKEN ((dm_token_t)-1)

/* The global handle: the pointer value 1 with length 1. Nothing is stored
 * behind it; it is never allocated nor freed. */
#define DM_GLOBAL_HANP ((void *)1)
#define DM_GLOBAL_HLEN ((size_t)1)

/* Handle record: a handle in use is a prefix of these 64 bytes. This is the
 * driver's wire format; see kxdmapi_handles.h for the field rules. */
#define DM_HANDLE_MAX 64
#define DM_FSHANDLE_LEN 8    /* file-system handle: the fsid alone */
#define DM_FILEHANDLE_LEN 24 /* fsid, fid length, pad, generation, inode */

typedef struct dm_handle {
  uint64_t dm_handle_fsid;         /* host byte order */
  uint16_t dm_handle_fidlen;       /* big-endian: handle length - 10 */
  uint16_t dm_handle_pad1;         /* zero */
  unsigned char dm_handle_fid[46]; /* generation (BE 32), inode (BE 64) */
  unsigned char dm_handle_pad2[6]; /* zero */
} dm_handle_t;

/* Data-management attribute name: 8 bytes, NUL-padded ("BFST", "VDEA"). */
#define DM_ATTR_NAME_SIZE 8
typedef struct dm_attrname {
  unsigned char an_chars[DM_ATTR_NAME_SIZE];
} dm_attrname_t;

/* Offset and length of variable data inside a reply buffer. */
typedef struct dm_vardata {
  uint32_t vd_offset;
  uint32_t vd_length;
} dm_vardata_t;

/* Longest path the library accepts or returns, without the NUL; buffers for
 * paths, mount points and file-system names hold DM_PATH_BUFSIZE bytes. A
 * mount point longer than DM_PATH_MAX cannot be resolved, so it never has a
 * record; a file-system name that long is cut to fit. */
#define DM_PATH_MAX 1024
#define DM_PATH_BUFSIZE (DM_PATH_MAX + 1)

#ifdef __cplusplus
}
#endif
