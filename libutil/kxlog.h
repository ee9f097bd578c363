/* The suite's logging hooks.
 *
 * __kxfs_logfn(level, format, ...) writes one log line; __kxfs_debugfn(level,
 * format, ...) one debug trace line. Both are process-wide, printf-like hooks
 * that a program may replace during start-up (before it starts threads; they
 * are read without a lock). The defaults write one "<TAG>: <text>" line to
 * standard error with a single write(2), adding the newline when the text
 * lacks one, so lines from several threads do not interleave.
 *
 * Library code tests its byte in `facilities` before building a debug trace,
 * e.g. `if (facilities[KXFS_FAC_VDPOLICY]) __kxfs_debugfn(...)`. Entries are
 * zero (tracing off) unless a program sets them.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Log levels, most important last. */
enum {
  KXLOG_INFO = 0,    /* "INFO" */
  KXLOG_NOTICE = 1,  /* "NOTICE": routine, low-importance events */
  KXLOG_WARNING = 2, /* "WARNING" */
  KXLOG_ERROR = 3    /* "ERROR" */
};

/* Calls through the hooks get the compiler's format checks. */
typedef void (*kxfs_logfn_t)(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

extern kxfs_logfn_t __kxfs_logfn;   /* initially __kxfs_logfn_default */
extern kxfs_logfn_t __kxfs_debugfn; /* initially __kxfs_debugfn_default */

/* "<LEVEL>: text" to standard error; unknown levels are tagged "LOG<n>". */
void __kxfs_logfn_default(int level, const char *format, ...) __attribute__((format(printf, 2, 3)));
/* "DEBUG<level>: text" to standard error. */
void __kxfs_debugfn_default(int level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Adapter with the WriteLog shape (see dopanic.h): logs `text` verbatim at
 * `level` through __kxfs_logfn. A program that logs sets WriteLog to it. */
void kxfs_write_log(int level, const char *text);

#define KXFS_NFACILITIES 64
#define KXFS_FAC_VDPOLICY 20 /* the policy library's trace byte */

extern unsigned char facilities[KXFS_NFACILITIES];

#ifdef __cplusplus
}
#endif
