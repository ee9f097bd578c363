/* Assertions and panic.
 *
 * Assertion form: KX_ASSERT(expr). Every translation unit that asserts
 * defines its own source path, as the build records it, without extension:
 *
 *     static const char kx_source_path[] = "vdutils/vdpostrestore";
 *
 * A failed KX_ASSERT calls DoPanic("ASSERT failed ", "<expr text>", 1,
 * kx_source_path, __LINE__), which never returns.
 *
 * DoPanicFn, PanicNomenclature and PanicNoCoreExitCode may be changed by a
 * program during start-up; WriteLog likewise. None of them is locked. Any
 * thread may panic; the hook runs in that thread.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*DoPanicFn_t)(const char *msg, const char *expr, int dump_core, const char *file,
                            int line);
typedef void (*WriteLog_t)(int level, const char *text);

#define KX_PANIC_NOMENCLATURE_SIZE 2048

extern DoPanicFn_t DoPanicFn;                              /* initially DefaultPanic */
extern char PanicNomenclature[KX_PANIC_NOMENCLATURE_SIZE]; /* "PANIC" */
extern int32_t PanicNoCoreExitCode;                        /* 1 */
extern WriteLog_t WriteLog;                                /* null: no log hook */

/* Calls DoPanicFn(...); if the hook returns, _exit(1). */
void DoPanic(const char *msg, const char *expr, int dump_core, const char *file, int line)
    __attribute__((noreturn));

/* Writes "<PanicNomenclature>: <CallerName> <msg>\"<expr>\" file <file>, line
 * <line>" to the system log (LOG_ALERT) and standard error, then abort() when
 * dump_core is non-zero, else _exit(PanicNoCoreExitCode). */
void DefaultPanic(const char *msg, const char *expr, int dump_core, const char *file, int line)
    __attribute__((noreturn));

/* Report an internal error: a panic (with core) on a checked build, else one
 * "ERROR (file:line) message" line through PanicCheckedWriteLog. */
void PanicCheckedBuild(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* 1 on a checked (test) installation, else 0; decided afresh on each call,
 * the reason is logged through WriteLog on the first call only. */
int IsVdfsCheckedBuild(void);

/* 1 when APPLIANCE_TYPE is exactly "tarnhol" or "merrow", else 0. */
int IsOrbulanAppliance(void);

/* Log `text` as an error line (level 3) through WriteLog, or to standard
 * error without a hook; a missing trailing newline is added. */
void PanicCheckedWriteLog(const char *text);

#define KX_ASSERT(expr) \
  ((expr) ? (void)0 : DoPanic("ASSERT failed ", #expr, 1, kx_source_path, __LINE__))

#ifdef __cplusplus
}
#endif
