/* RAS (reliability, availability, serviceability) event reporting.
 *
 * RasFn, FsName and CallerName are set by a program during start-up and read
 * without a lock. RasEvent keeps its work in local buffers and is safe from
 * any thread (the hook must be too). NeedPerClntRas locks ras_clnt_lock.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Delivery hook: event name, event text, time of the event. */
typedef int (*RasFn_t)(const char *event_name, const char *text, uint32_t sec, uint32_t usec);

#define KX_FSNAME_SIZE 256
#define KX_RAS_TEXT_SIZE 512 /* messages and event texts keep <= 511 chars */
#define KX_RAS_CLIENT_ID_SIZE 16
#define KX_RAS_CLIENT_CLASSES 2
#define KX_RAS_CLIENT_INTERVAL 3600 /* seconds between events of one client */

extern RasFn_t RasFn;               /* null: events go to standard error */
extern char FsName[KX_FSNAME_SIZE]; /* "none" */

/* With a hook: "<prog>[PID=<pid>]: <msg>" (or "...: fs '<FsName>': <msg>"
 * when FsName is not "none") is passed to RasFn; returns its result.
 * Without: the message and a newline go to standard error; returns 0. */
int RasEvent(const char *event_name, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* 1 when an event of class `cls` (0 or 1) about the client whose 16-byte id
 * `client` points to may be reported now (at most one an hour), else 0.
 * A bad class or null client returns 1 (the event is let through). */
int NeedPerClntRas(int cls, const void *client);

#ifdef __cplusplus
}
#endif
