/* External representations: named records that describe other places where a
 * file's content lives (a deduplicated copy "BLOB", an object-store copy
 * "OBJF", a replica "REPL"), and the neighbouring ingest, fence-post and
 * bulk-link calls.
 *
 * Every call is one ioctl on the caller's descriptor of a file (a directory for
 * KxApi_BulkLink) carrying one fixed record. Results: 0 on success or a
 * positive error number (never -1); errno is left as the failing step set it.
 * Nothing is allocated and no state is kept: the calls are thread-safe.
 * The records are a format shared with the file system; their layout is fixed.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Request numbers: plain numbers, not encoded with a size or direction. */
#define KXAPI_SET_EXTERNAL_REP 0xD31u
#define KXAPI_GET_EXTERNAL_REP 0xD32u
#define KXAPI_REMOVE_EXTERNAL_REP 0xD33u
#define KXAPI_SET_INGEST_PARAM 0xD39u
#define KXAPI_SET_FENCEPOSTS 0xD43u
#define KXAPI_BULK_LINK 0xD44u

#define KXAPI_KEYNAME_SIZE 32 /* key names hold at most 31 characters */

/* 96 bytes. Addresses are carried as 64-bit numbers. */
typedef struct ExternalRepSet {
  uint32_t ext_entry_flags; /* flags of the entry being set */
  uint32_t ext_pad1;
  uint64_t ext_offset; /* start of the file range covered */
  uint64_t ext_length; /* length of that range */
  char ext_keyname[KXAPI_KEYNAME_SIZE];
  uint32_t ext_fieldlen;   /* length of the stored value (out, on get) */
  uint32_t ext_datalen;    /* data buffer length (in) / bytes returned (out) */
  uint64_t ext_dataoffset; /* offset of the data within the value */
  uint64_t ext_data;       /* address of the caller's data buffer */
  uint32_t ext_op_flags;   /* operation flags */
  uint32_t ext_pad2;
  uint64_t ext_split_data; /* address of a second data buffer */
} ExternalRepSet_t;

typedef struct IngestParamSet { /* 24 bytes */
  uint64_t ext_ingest_fencepost_gap;
  uint64_t ext_ingest_max_seg_size;
  uint32_t ext_ingest_max_seg_age;
  uint32_t ext_pad1;
} IngestParamSet_t;

typedef struct FencePostParamSet { /* 16 bytes */
  uint64_t ext_fencepost_offset;
  uint64_t ext_fencepost_end;
} FencePostParamSet_t;

#define KXAPI_BULKLINK_NAME_SIZE 256
typedef struct _BulkLinkEntry { /* 280 bytes */
  uint16_t ble_flags;
  uint16_t ble_pad1;
  uint32_t ble_name_len;
  uint64_t ble_inode;
  uint32_t ble_gen;
  uint32_t ble_pad2;
  char ble_name[KXAPI_BULKLINK_NAME_SIZE];
} _BulkLinkEntry;

typedef struct _BulkLink { /* 296 bytes, built by the caller */
  uint32_t bl_entry_count;
  uint32_t bl_msgsize;
  uint32_t bl_flags;
  uint32_t bl_pad;
  _BulkLinkEntry bl_entry;
} _BulkLink;

/* The layout is the file system's: any change breaks the requests. */
#ifdef __cplusplus
#define KXAPI_LAYOUT_CHECK(e) static_assert(e, #e)
#else
#define KXAPI_LAYOUT_CHECK(e) _Static_assert(e, #e)
#endif
KXAPI_LAYOUT_CHECK(sizeof(ExternalRepSet_t) == 96);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_offset) == 8);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_keyname) == 24);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_fieldlen) == 56);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_datalen) == 60);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_data) == 72);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_op_flags) == 80);
KXAPI_LAYOUT_CHECK(offsetof(ExternalRepSet_t, ext_split_data) == 88);
KXAPI_LAYOUT_CHECK(sizeof(IngestParamSet_t) == 24);
KXAPI_LAYOUT_CHECK(sizeof(FencePostParamSet_t) == 16);
KXAPI_LAYOUT_CHECK(sizeof(_BulkLinkEntry) == 280);
KXAPI_LAYOUT_CHECK(offsetof(_BulkLinkEntry, ble_name) == 24);
KXAPI_LAYOUT_CHECK(sizeof(_BulkLink) == 296);
KXAPI_LAYOUT_CHECK(offsetof(_BulkLink, bl_entry) == 16);
#undef KXAPI_LAYOUT_CHECK

/* Reads the representation f_keyname covering [f_offset, f_offset+f_length)
 * into f_data (*f_buflen bytes). On success *f_fieldlen is the stored value's
 * length and *f_buflen the bytes returned; on failure both are untouched.
 * A null key name or f_buflen gives EINVAL, a key name of 32 characters or
 * more ENAMETOOLONG, before any request. */
int KxApi_GetExternalRep(int f_fd, uint64_t f_offset, uint64_t f_length, const char *f_keyname,
                         uint32_t *f_fieldlen, uint32_t *f_buflen, void *f_data);
/* Sets the representation f_keyname to f_datalen bytes of f_data. */
int KxApi_SetExternalRep(int f_fd, uint32_t f_entry_flags, uint64_t f_offset, uint64_t f_length,
                         uint64_t f_dataoffset, const char *f_keyname, uint32_t f_datalen,
                         const void *f_data, uint32_t f_op_flags, void *f_split_data);
/* Removes the representation f_keyname at f_offset. */
int KxApi_RemoveExternalRep(int f_fd, uint64_t f_offset, uint32_t f_op_flags,
                            const char *f_keyname);
int KxApi_SetIngestParam(int f_fd, uint64_t f_fencepost_gap, uint64_t f_seg_size,
                         uint32_t f_seg_age);
int KxApi_SetFenceposts(int f_fd, uint64_t f_start, uint64_t f_end);
/* Passes the caller's record as it is; null gives EINVAL. */
int KxApi_BulkLink(int f_dirfd, _BulkLink *f_reqbuf);

#ifdef __cplusplus
}
#endif
