/* The driver channel and session start.
 *
 * Every session, event and path-to-handle request is one ioctl
 * (KXDMAPI_DMIG_IOCTL) on the control device "/dev/kxfsctl0", carrying a Dmig
 * frame that points at the request's payload. The descriptor is opened by
 * dm_init_service or by the first request and kept in kxdmapi_dmfd (unless
 * dm_release_dmfd switched to open-per-request); a descriptor that went
 * stale (EBADF) is replaced transparently, at most twice per request.
 *
 * Threads: kxdmapi_dmfd is read without the lock on the fast path (atomic
 * access); opening, replacing and closing it happen under kxdmapi_dmfd_lock.
 * Requests run concurrently on the shared descriptor.
 */
#pragma once

#include <pthread.h>

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define KXDMAPI_CONTROL_DEVICE "/dev/kxfsctl0"
#define DMIG_VERSION 6

/* Request frame, native byte order, 24 bytes. */
typedef struct Dmig {
  int32_t dmig_func;      /* request code, DMIG_* */
  int16_t dmig_version;   /* DMIG_VERSION */
  int16_t dmig_error;     /* 0 on the way in; not read back */
  uint32_t dmig_bufsize;  /* payload length */
  uint32_t dmig_align1;   /* padding */
  dm_useraddr_t dmig_buf; /* payload address; the reply is written there */
} Dmig, Dmig_t;

/* Request codes and the payload lengths their senders use. */
enum {
  DMIG_INIT_SERVICE = 1,     /* 256 */
  DMIG_CREATE_SESSION = 2,   /* 264 */
  DMIG_DESTROY_SESSION = 3,  /* 8 */
  DMIG_GETALL_SESSIONS = 4,  /* 16 */
  DMIG_QUERY_SESSION = 5,    /* 264 */
  DMIG_PATH_TO_HANDLE = 7,   /* 1112 */
  DMIG_GET_EVENTLIST = 9,    /* 96 */
  DMIG_SET_EVENTLIST = 10,   /* 32 */
  DMIG_SET_DISP = 15,        /* 88 */
  DMIG_GETALL_TOKENS = 16,   /* 16 */
  DMIG_GETALL_DISP = 17,     /* 16 */
  DMIG_GET_EVENTS = 18,      /* 32 */
  DMIG_FIND_EVENTMSG = 21,   /* 24 */
  DMIG_RESPOND_EVENT = 22,   /* 32 */
  DMIG_ROLL_EVENTFILE = 37,  /* 24 */
  DMIG_ADD_EVENTENTRY = 38,  /* 1256 */
  DMIG_GET_DIR = 39,         /* 1040 */
  DMIG_UPDATE_EVENTLIST = 40 /* 40 */
};

#define KXDMAPI_VERSION_STRING_SIZE 36

extern int32_t kxdmapi_dmfd;      /* control-device descriptor or -1 */
extern int32_t kxdmapi_dmfd_keep; /* 1: keep it open; 0: open per request */
extern pthread_mutex_t kxdmapi_dmfd_lock;
/* "KXFS DMAPI (XDSM) API, Release 1.0." */
extern char kxdmapi_version_string[KXDMAPI_VERSION_STRING_SIZE];

/* "libkxdmapi" once dm_init_service has run: the library's own name, kept
 * apart from the application's program name. */
extern const char *kxdmapi_Prog;

/* Sends one request. Returns the ioctl result (0, or -1 with the driver's
 * errno; -1 with EIO for any other result); -1 with ENOSYS when the control
 * device cannot be opened; -1 with EINVAL when len does not fit the frame.
 * The payload is the caller's. */
int kxdmapi_call_driver(int func, void *pdata, size_t len);

/* Opens the channel and initialises the service. 0 with *versionstrpp
 * pointing at kxdmapi_version_string (never to be freed), or -1 with errno:
 * ENOSYS when the device is missing, EPERM when not permitted, or the
 * driver's. Only the first call tries; later calls return 0. */
int dm_init_service(char **versionstrpp);

/* Switches to open-per-request mode and closes the kept descriptor. */
void dm_release_dmfd(void);

/* Two hex digits per byte, high nibble first, then a NUL: out must hold
 * 2 * length + 1 bytes. Upper-case and lower-case digits respectively. */
void dm_binary_to_hex(const void *bytes, size_t length, char *out);
void dm_binary_to_hex_lc(const void *bytes, size_t length, char *out);

#ifdef __cplusplus
}
#endif
