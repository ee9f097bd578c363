// What a path of a managed file system is to the policy engine, and the
// file system's own path for it.
#include "vdpolicy/lib/check/dm_util.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "kxdmapi/kxdmapi_attributes.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_paths.h"
#include "libutil/kxlog.h"

namespace {

constexpr dm_ino_t kRootInode = 2;
constexpr std::size_t kBfstSize = 32;

struct Bfst {
  uint64_t key = 0;
  uint16_t flags = 0;
};

uint64_t big_endian(const unsigned char *bytes, std::size_t size) {
  uint64_t value = 0;
  for (std::size_t i = 0; i < size; ++i) value = (value << 8) | bytes[i];
  return value;
}

// The object's "BFST" key (bytes 0-7) and flags (bytes 12-13); a missing
// attribute is key 0 and flags 0. False when the attribute cannot be read.
bool read_bfst(const char *path, Bfst *out) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  dm_attrname_t name{{'B', 'F', 'S', 'T', 0, 0, 0, 0}};
  unsigned char raw[kBfstSize] = {};
  size_t len = 0;
  int rc = dm_get_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &name, sizeof raw, raw, &len);
  int saved = errno;
  close(fd);
  if (rc != 0) return saved == ENODATA || saved == ENOENT;
  out->key = big_endian(raw, 8);
  out->flags = static_cast<uint16_t>(big_endian(raw + 12, 2));
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
  void *local_han = nullptr;
  size_t local_len = 0;
  void **han = hanpp != nullptr ? hanpp : &local_han;
  size_t *len = hlenp != nullptr ? hlenp : &local_len;
  if (*han == nullptr && (path == nullptr || dm_path_to_handle_client(path, han, len) != 0)) {
    if (kindp != nullptr) *kindp = CRACK_UNRESOLVED;
    return -1;
  }
  dm_fsid_t fsid = 0;
  dm_ino_t ino = 0;
  dm_igen_t igen = 0;
  (void)dm_crack_handle(*han, *len, &fsid, &ino, &igen);
  if (hanpp == nullptr) dm_handle_free(local_han, local_len);
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
  void *han = nullptr;
  size_t hlen = 0;
  if (dm_path_to_handle_client(path, &han, &hlen) != 0) return -1;
  size_t needed = 0;
  int rc = dm_handle_to_path(nullptr, 0, han, hlen, outlen, out, &needed);
  dm_handle_free(han, hlen);
  return rc;
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
