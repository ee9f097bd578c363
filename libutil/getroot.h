/* Installation directories.
 *
 * Thirteen named directories, each taken from an environment variable, a
 * built-in default or a sub-directory of another entry. The table is resolved
 * once per process, on first use (get_kxfs_root_mtx makes that happen once);
 * later changes of the environment have no effect. The returned strings are
 * owned by the table (or the environment) and stay valid and unchanged for
 * the life of the process. All functions are thread-safe.
 */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define KXFS_ROOT_PATH_SIZE 256 /* joined paths are cut to 255 characters */

/* Resolve the table; idempotent. */
void initialize_roots(void);

const char *GetKxfsRoot(void);       /* $KXFSROOT or "/usr/kxfs" */
const char *GetKxfsConfigDir(void);  /* $KXFSCONF or <root>/config */
const char *GetKxfsLogRoot(void);    /* $KXFSLOGS or <root> */
const char *GetKxfsDataDir(void);    /* <logroot>/data */
const char *GetKxfsDebugDir(void);   /* <logroot>/debug */
const char *GetKxfsRasDir(void);     /* <logroot>/ras */
const char *GetKxfsZestatsDir(void); /* <logroot>/zestats */
const char *GetKxfsBinDir(void);     /* <root>/bin */
const char *GetKxfsHelpDir(void);    /* <root>/help */
const char *GetKxfsLibDir(void);     /* <root>/lib */
const char *GetKxfsOemDir(void);     /* <config>/oem */
const char *GetKxfsInstallDir(void); /* <root>/install */
const char *GetKxfsLdapDir(void);    /* <logroot>/ldap */

#ifdef __cplusplus
}
#endif
