/* Event lists, dispositions and the event message path.
 *
 * A file handle's event list goes by ioctl on a descriptor of the file opened
 * through the open-file cache; a file-system handle's, and every other call
 * here, through the driver channel. The `_fd` forms send the same payload on
 * the caller's own descriptor and check nothing (maxevent included).
 *
 * Results: 0 on success, -1 with errno set; a failed request or ioctl leaves
 * its own errno. Masks are passed by pointer. Nothing is allocated and no state
 * is kept, so the calls may be used from several threads.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kxdmapi/kxdmapi_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum dm_eventtype {
  DM_EVENT_INVALID = -1,
  DM_EVENT_CANCEL = 0,
  DM_EVENT_MOUNT = 1,
  DM_EVENT_PREUNMOUNT = 2,
  DM_EVENT_UNMOUNT = 3,
  DM_EVENT_DEBUT = 4,
  DM_EVENT_CREATE = 5,
  DM_EVENT_CLOSE = 6,
  DM_EVENT_POSTCREATE = 7,
  DM_EVENT_REMOVE = 8,
  DM_EVENT_POSTREMOVE = 9,
  DM_EVENT_RENAME = 10,
  DM_EVENT_POSTRENAME = 11,
  DM_EVENT_LINK = 12,
  DM_EVENT_POSTLINK = 13,
  DM_EVENT_SYMLINK = 14,
  DM_EVENT_POSTSYMLINK = 15,
  DM_EVENT_READ = 16,
  DM_EVENT_WRITE = 17,
  DM_EVENT_TRUNCATE = 18,
  DM_EVENT_ATTRIBUTE = 19,
  DM_EVENT_DESTROY = 20,
  DM_EVENT_NOSPACE = 21,
  DM_EVENT_USER = 22,
  DM_EVENT_TSM_RETRIEVING = 23,
  DM_EVENT_INHERIT_EVENTS = 24,
  DM_EVENT_INHERIT_DMATTRS = 25,
  DM_EVENT_INHERITED_EVENTS = 26,
  DM_EVENT_INHERITED_DMATTRS = 27,
  DM_EVENT_BLOCKLET = 28,
  DM_EVENT_VDPOLICY = 29,
  DM_EVENT_OK2PUNCH = 30,
  DM_EVENT_UNUSED_31 = 31,
  DM_EVENT_INGEST_READ = 32,
  DM_EVENT_INGEST_WRITE = 33,
  DM_EVENT_ENTIRE_READ = 34,
  DM_EVENT_ENTIRE_WRITE = 35,
  DM_EVENT_INGEST_TRUNCATE = 36,
  DM_EVENT_INGEST_NOSPACE = 37,
  DM_EVENT_INVIS_READ = 38,
  DM_EVENT_SPARE_1 = 39,
  DM_EVENT_MAX = 40, /* event lists hold the types below this */
  DM_EVENT_POSTDIRCREATE = 40,
  DM_EVENT_BLOCKLET_DESTROY = 41,
  DM_EVENT_BLOCKLET_TRUNCATE = 42,
  DM_EVENT_REPLICATE_SRC = 43,
  DM_EVENT_REPLICATE = 44,
  DM_EVENT_BLOCKLET_CLOUD_DESTROY = 45,
  DM_EVENT_MAX_VALUE = 45
} dm_eventtype_t;

typedef enum dm_response {
  DM_RESP_INVALID = 0,
  DM_RESP_CONTINUE = 1,
  DM_RESP_ABORT = 2,
  DM_RESP_DONTCARE = 3
} dm_response_t;

#define DMEV_SET(ev, set) ((set) |= ((dm_eventset_t)1 << (ev)))
#define DMEV_CLR(ev, set) ((set) &= ~((dm_eventset_t)1 << (ev)))
#define DMEV_ISSET(ev, set) (((set) >> (ev)) & 1)

/* Bits 28-30 (BLOCKLET, VDPOLICY, OK2PUNCH): the per-file events set by the
 * storage and policy software. */
#define DM_EVENT_MANAGED_MASK ((dm_eventset_t)0x70000000)

#define DM_ADD_EVENTENTRY_DATA_MAX 1232 /* bytes of data in one event entry */
#define DM_GET_DIR_PATH_MAX 1024        /* bytes written by dm_get_dir */

/* maxevent must be 1..DM_EVENT_MAX (EINVAL otherwise). */
int dm_update_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                        const dm_eventset_t *events_to_setp, const dm_eventset_t *events_to_clearp,
                        unsigned int maxevent);
int dm_update_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token,
                           const dm_eventset_t *events_to_setp,
                           const dm_eventset_t *events_to_clearp, unsigned int maxevent);
int dm_set_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                     const dm_eventset_t *eventsetp, unsigned int maxevent);
int dm_set_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token, const dm_eventset_t *eventsetp,
                        unsigned int maxevent);
/* nelem 0 fails with EINVAL. *eventsetp and *nelemp receive the event set and
 * the number of event types returned. */
int dm_get_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                     unsigned int nelem, dm_eventset_t *eventsetp, unsigned int *nelemp);
int dm_get_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token, unsigned int nelem,
                        dm_eventset_t *eventsetp, unsigned int *nelemp);

/* The global handle is allowed here. */
int dm_set_disp(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                const dm_eventset_t *eventsetp, unsigned int maxevent);
/* *rlenp is stored even when the request fails; a reply longer than buflen
 * fails with EIO. */
int dm_getall_disp(dm_sessid_t sid, size_t buflen, void *bufp, size_t *rlenp);
int dm_get_events(dm_sessid_t sid, unsigned int maxmsgs, unsigned int flags, size_t buflen,
                  void *bufp, size_t *rlenp);
int dm_find_eventmsg(dm_sessid_t sid, dm_token_t token, size_t buflen, void *bufp, size_t *rlenp);
int dm_respond_event(dm_sessid_t sid, dm_token_t token, dm_response_t response, int reterror,
                     size_t buflen, void *respbufp);

/* Event-file calls: event must be 7, 20, 28 or 40..45 (EINVAL otherwise); the
 * 64-bit argument is passed through. */
int dm_roll_eventfile(dm_sessid_t sid, uint64_t arg, dm_eventtype_t event);
/* datalen at most DM_ADD_EVENTENTRY_DATA_MAX (EINVAL otherwise). */
int dm_add_evententry(dm_sessid_t sid, uint64_t arg, dm_eventtype_t event, size_t datalen,
                      const void *datap);
/* type must be 1; path receives at most DM_GET_DIR_PATH_MAX bytes, NUL included. */
int dm_get_dir(uint64_t arg, int type, char *path);

#ifdef __cplusplus
}
#endif
