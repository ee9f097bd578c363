/* Administrator check and the process-wide caller name.
 *
 * CallerName names the program (or library) in panic lines and RAS events.
 * It is a plain pointer: set_caller_name stores the caller's pointer without
 * copying, so the text must stay alive for the life of the process (a program
 * passes argv[0]). Set it once during start-up, before other threads run;
 * readers do not lock.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Initially "libutil". */
extern const char *CallerName;

/* Store `name` (not a copy) in CallerName. A null name is stored as is. */
void set_caller_name(const char *name);

/* 1 when the effective user id is 0 (root), else 0. Thread-safe. */
int PrivCheck(void);

#ifdef __cplusplus
}
#endif
