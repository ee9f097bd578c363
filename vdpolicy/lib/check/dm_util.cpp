// What a path of a managed file system is to the policy engine, and the
// file system's own path for it.
#include "vdpolicy/lib/check/dm_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi_attributes.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_paths.h"
#include "libutil/kxlog.h"
#include "libutil/unique_fd.h"
#include "vdpolicy/bfst_record.h"

namespace {

constexpr dm_ino_t kRootInode = 2;

struct Bfst {
  uint64_t key = 0;
  uint16_t flags = 0;
};

// The object's "BFST" key (bytes 0-7) and flags (bytes 12-13); a missing
// attribute is key 0 and flags 0. False when the attribute cannot be read.
bool read_bfst(const char *path, Bfst *out) {
  const kx::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return false;
  dm_attrname_t name{{'B', 'F', 'S', 'T', 0, 0, 0, 0}};
  unsigned char raw[BFST_RECORD_SIZE] = {};
  size_t len = 0;
  if (dm_get_dmattr_fd(fd.get(), DM_NO_SESSION, DM_NO_TOKEN, &name, sizeof raw, raw, &len) != 0)
    return errno == ENODATA || errno == ENOENT;
  out->key = bfst_key(raw);
  out->flags = bfst_flags(raw);
  return true;
}

int kind_of(const Bfst &bfst, dm_ino_t ino) {
  if (bfst.key == 0) return CRACK_NO_KEY;
  if ((bfst.flags & BFST_FLAG_REPLICA) != 0) return CRACK_REPLICA;
  if ((bfst.flags & BFST_FLAG_KEY_ROOT) != 0 || bfst.key == ino) return CRACK_KEY_ROOT;
  return CRACK_KEYED;
}

}  // namespace

extern "C" {

int crack_path(const char *path, void **hanpp, size_t *hlenp, dm_fsid_t *fsidp, uint64_t *keyp,
               dm_ino_t *inop, dm_igen_t *igenp, int *kindp) {
  if ((hanpp == nullptr) != (hlenp == nullptr)) return -1;
  kxdmapi::DmHandle local;
  void **han = hanpp != nullptr ? hanpp : &local.hanp;
  size_t *len = hlenp != nullptr ? hlenp : &local.hlen;
  if (*han == nullptr && (path == nullptr || dm_path_to_handle_client(path, han, len) != 0)) {
    if (kindp != nullptr) *kindp = CRACK_UNRESOLVED;
    return -1;
  }
  dm_fsid_t fsid = 0;
  dm_ino_t ino = 0;
  dm_igen_t igen = 0;
  (void)dm_crack_handle(*han, *len, &fsid, &ino, &igen);
  local.reset();
  int kind = 0;
  if (fsidp != nullptr) {
    if (*fsidp == 0)
      *fsidp = fsid;
    else if (*fsidp != fsid)
      kind = CRACK_OTHER_FS;
  }
  if (kind == 0 && ino == kRootInode) kind = CRACK_FS_ROOT;
  if (inop != nullptr) *inop = ino;
  if (igenp != nullptr) *igenp = igen;
  if (keyp == nullptr && kindp == nullptr) return 0;
  Bfst bfst;
  if (path == nullptr || !read_bfst(path, &bfst)) return -1;
  if (keyp != nullptr) *keyp = bfst.key;
  if (kindp != nullptr) *kindp = kind != 0 ? kind : kind_of(bfst, ino);
  return 0;
}

int convert_special_to_real(const char *path, char *out, size_t outlen) {
  kxdmapi::DmHandle han;
  if (dm_path_to_handle_client(path, &han.hanp, &han.hlen) != 0) return -1;
  size_t needed = 0;
  return dm_handle_to_path(nullptr, 0, han.hanp, han.hlen, outlen, out, &needed);
}

int get_policy_root_path(const PolicyConfig_t *config, int mode, char *path_out) {
  const char *root = config != nullptr ? config->polcfg_root : nullptr;
  if (root == nullptr || path_out == nullptr) return -1;
  if (mode != 0) {
    int kind = 0;
    if (crack_path(root, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &kind) != 0) {
      __kxfs_logfn(KXLOG_ERROR, "Error mapping policy->polcfg %s\n", root);
      return -1;
    }
    if (kind == CRACK_REPLICA) {
      char link[POLICY_ROOT_PATH_SIZE];
      int made = std::snprintf(link, sizeof link, "%s/copies/0", root);
      ssize_t n = made >= 0 && static_cast<size_t>(made) < sizeof link
                      ? readlink(link, path_out, POLICY_ROOT_PATH_SIZE - 1)
                      : -1;
      if (n >= 0) {
        path_out[n] = '\0';
        return 0;
      }
      if (mode != 1) {
        __kxfs_logfn(KXLOG_ERROR, "get_policy_root_path failed for policy root %s\n", root);
        return -1;
      }
    }
  }
  if (convert_special_to_real(root, path_out, POLICY_ROOT_PATH_SIZE) != 0) {
    __kxfs_logfn(KXLOG_ERROR, "get_policy_root_path failed for policy root %s\n", root);
    return -1;
  }
  return 0;
}

}  // extern "C"
