/* Paths of managed file systems as the policy engine sees them: what kind
 * of object a path names, and its canonical path.
 *
 * All functions are thread-safe; results 0, or -1 on failure. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kxdmapi/kxdmapi_types.h"
#include "vdpolicy/bfst_record.h"
#include "vdpolicy/lib/config/policy_config.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of crack_path, tested in this order. */
enum crack_kind {
  CRACK_UNRESOLVED = 2, /* the path cannot be resolved */
  CRACK_OTHER_FS = 3,   /* not on the file system the caller named */
  CRACK_FS_ROOT = 4,    /* the file system's root (inode 2) */
  CRACK_NO_KEY = 5,     /* "BFST" key 0 or no "BFST" */
  CRACK_REPLICA = 8,    /* "BFST" flag 0x100 */
  CRACK_KEY_ROOT = 6,   /* flag 0x4, or the key is the object's inode */
  CRACK_KEYED = 7       /* any other keyed object */
};

/* Resolves path and reports what the caller asks for (each output may be
 * null): the file system (*fsidp is written only when it was 0; a non-zero
 * one that differs gives CRACK_OTHER_FS), inode, generation, the policy key
 * from the object's "BFST" attribute and the kind. hanpp/hlenp, both or
 * neither, cache the path's handle: one already there is used, an empty one
 * receives the path's (owned by the caller). The attribute is read through
 * a read-only descriptor of path, only when the key or the kind is asked. */
int crack_path(const char *path, void **hanpp, size_t *hlenp, dm_fsid_t *fsidp, uint64_t *keyp,
               dm_ino_t *inop, dm_igen_t *igenp, int *kindp);

/* The file system's own path for the object at path, into out (outlen
 * bytes). */
int convert_special_to_real(const char *path, char *out, size_t outlen);

#define POLICY_ROOT_PATH_SIZE 4096

/* The real path of config's root into path_out (POLICY_ROOT_PATH_SIZE
 * bytes). With a non-zero mode a replica root (kind 8) is followed through
 * its "copies/0" link; mode 1 falls back to the root itself when that link
 * cannot be read. */
int get_policy_root_path(const PolicyConfig_t *config, int mode, char *path_out);

#ifdef __cplusplus
}
#endif
