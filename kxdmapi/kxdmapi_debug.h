/* Call tracing of the DMAPI client library.
 *
 * kxdmapi_debug(format, ...) appends one line to "dmapi.log" in the
 * file-system debug directory (GetKxfsDebugDir()), only while that file
 * exists: the library never creates it. The first traced call that finds it
 * missing (or unopenable) sets kxdmapi_debug_flags to 0 for the rest of the
 * process. A line reads
 *     "MMDD HH:MM:SS.uuuuuu: KxDmapiDebug(pid N): <depth spaces><message>"
 * and the message carries its own newline. errno is always preserved.
 *
 * Threads: the switches, the depth and the descriptor are shared without a
 * lock (accessed atomically); each line is one write(2) in append mode, so
 * lines never tear, but concurrent calls may interleave their depths.
 * Messages are limited to about 1 KB; longer ones are cut.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

extern int32_t kxdmapi_debug_flags;      /* non-zero: tracing on (initially 1) */
extern int32_t kxdmapi_call_depth;       /* indentation depth (initially 0) */
extern char *kxdmapi_debug_file;         /* trace file path, made on first use */
extern int32_t kxdmapi_debug_fd;         /* trace file descriptor or -1 */
extern const char *kxdmapi_debug_header; /* "KxDmapiDebug" */

void kxdmapi_debug(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Helpers for the library's own operations: one test of the switch when
 * tracing is off. ENTER traces then indents; EXIT unindents then traces. */
#define KXDMAPI_TRACING() (__atomic_load_n(&kxdmapi_debug_flags, __ATOMIC_RELAXED) != 0)
#define KXDMAPI_TRACE(...)                             \
  do {                                                 \
    if (KXDMAPI_TRACING()) kxdmapi_debug(__VA_ARGS__); \
  } while (0)
#define KXDMAPI_TRACE_ENTER(...)                                                           \
  do {                                                                                     \
    if (KXDMAPI_TRACING()) {                                                               \
      kxdmapi_debug(__VA_ARGS__);                                                          \
      /* the first line may have switched tracing off */                                   \
      if (KXDMAPI_TRACING()) __atomic_add_fetch(&kxdmapi_call_depth, 1, __ATOMIC_RELAXED); \
    }                                                                                      \
  } while (0)
#define KXDMAPI_TRACE_EXIT(...)                                     \
  do {                                                              \
    if (KXDMAPI_TRACING()) {                                        \
      __atomic_sub_fetch(&kxdmapi_call_depth, 1, __ATOMIC_RELAXED); \
      kxdmapi_debug(__VA_ARGS__);                                   \
    }                                                               \
  } while (0)

#ifdef __cplusplus
}
#endif
