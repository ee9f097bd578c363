// DMAPI handles: the wire layout and the operations on it.
#include "kxdmapi/kxdmapi_handles.h"

#include <errno.h>
#include <sys/ioctl.h>

#include <cstdlib>
#include <cstring>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_wire.h"

static_assert(sizeof(dm_handle_t) == DM_HANDLE_MAX, "a handle record is 64 bytes");
static_assert(offsetof(dm_handle_t, dm_handle_fidlen) == 8);
static_assert(offsetof(dm_handle_t, dm_handle_pad1) == 10);
static_assert(offsetof(dm_handle_t, dm_handle_fid) == 12);
static_assert(offsetof(dm_handle_t, dm_handle_pad2) == 58);


namespace {

constexpr size_t kFidLenOffset = 8;
constexpr size_t kPad1Offset = 10;
constexpr size_t kGenOffset = 12;
constexpr size_t kInoOffset = 16;

bool is_global(const void *hanp, size_t hlen) {
  return hanp == DM_GLOBAL_HANP && hlen == DM_GLOBAL_HLEN;
}

// The one place that lays out a file handle.
void fill_file_handle(unsigned char *h, dm_fsid_t fsid, dm_ino_t ino, dm_igen_t igen) {
  std::memset(h, 0, DM_HANDLE_MAX);
  std::memcpy(h, &fsid, sizeof fsid);
  kx_put_be(h, kFidLenOffset, 2, DM_FILEHANDLE_LEN - 10);
  kx_put_be(h, kGenOffset, 4, igen);
  kx_put_be(h, kInoOffset, 8, ino & DM_HANDLE_INO_MASK);
}

// A new block holding a copy of len bytes, or null with ENOMEM.
void *copy_block(const void *bytes, size_t len) {
  void *block = std::malloc(len);
  if (block == nullptr) {
    errno = ENOMEM;
    return nullptr;
  }
  std::memcpy(block, bytes, len);
  return block;
}

// Unsigned byte order as -1, 0, 1. Pointers that carry no bytes (null, or
// the global handle's marker) order before any real handle of that length.
int compare_bytes(const void *a, const void *b, size_t len) {
  if (len == 0) return 0;
  bool a_empty = a == nullptr || a == DM_GLOBAL_HANP;
  bool b_empty = b == nullptr || b == DM_GLOBAL_HANP;
  if (a_empty || b_empty) return a_empty == b_empty ? 0 : (a_empty ? -1 : 1);
  int result = std::memcmp(a, b, len);
  return result > 0 ? 1 : (result < 0 ? -1 : 0);
}

}  // namespace

extern "C" size_t dm_strnlen(const char *s, size_t n) {
  size_t len = 0;
  while (len < n && s[len] != '\0') ++len;
  return len;
}

extern "C" int dm_handle_is_global(const void *hanp, size_t hlen) {
  if (!is_global(hanp, hlen)) return 0;
  KXDMAPI_TRACE("dm_handle_is_global\n");
  return 1;
}

extern "C" void dm_handle_free(void *hanp, size_t /*hlen*/) {
  KXDMAPI_TRACE("dm_handle_free hp/%p\n", hanp);
  // The global handle is a marker, not an allocation.
  if (hanp != DM_GLOBAL_HANP) std::free(hanp);
}

extern "C" int dm_crack_handle(const void *hanp, size_t hlen, dm_fsid_t *fsidp, dm_ino_t *inop,
                               dm_igen_t *igenp) {
  if (is_global(hanp, hlen)) return DM_HANDLE_GLOBAL;
  if (hanp == nullptr || hlen < DM_FSHANDLE_LEN || hlen > DM_HANDLE_MAX) return DM_HANDLE_INVALID;
  // Bytes beyond a short handle read as zero.
  unsigned char h[DM_HANDLE_MAX] = {};
  std::memcpy(h, hanp, hlen);
  dm_fsid_t fsid;
  std::memcpy(&fsid, h, sizeof fsid);
  if (fsid == 0) return DM_HANDLE_INVALID;
  if (fsidp != nullptr) *fsidp = fsid;
  if (hlen == DM_FSHANDLE_LEN) return DM_HANDLE_FILESYSTEM;
  if (kx_get_be(h, kFidLenOffset, 2) != hlen - 10 || kx_get_be(h, kPad1Offset, 2) != 0)
    return DM_HANDLE_INVALID;
  if (inop != nullptr) *inop = kx_get_be(h, kInoOffset, 8);
  if (igenp != nullptr) *igenp = static_cast<dm_igen_t>(kx_get_be(h, kGenOffset, 4));
  return DM_HANDLE_FILE;
}

extern "C" dm_boolean_t dm_handle_is_valid(const void *hanp, size_t hlen) {
  return dm_crack_handle(hanp, hlen, nullptr, nullptr, nullptr) != DM_HANDLE_INVALID ? 1 : 0;
}

extern "C" int dm_handle_to_fsid(const void *hanp, size_t hlen, dm_fsid_t *fsidp) {
  int kind = dm_crack_handle(hanp, hlen, fsidp, nullptr, nullptr);
  if (kind == DM_HANDLE_FILESYSTEM || kind == DM_HANDLE_FILE) return 0;
  errno = EBADF;
  return -1;
}

extern "C" int dm_handle_to_ino(const void *hanp, size_t hlen, dm_ino_t *inop) {
  if (dm_crack_handle(hanp, hlen, nullptr, inop, nullptr) == DM_HANDLE_FILE) {
    KXDMAPI_TRACE("dm_handle_to_ino\n");
    return 0;
  }
  KXDMAPI_TRACE("dm_handle_to_ino: NOT!\n");
  errno = EBADF;
  return -1;
}

extern "C" int dm_handle_to_igen(const void *hanp, size_t hlen, dm_igen_t *igenp) {
  if (dm_crack_handle(hanp, hlen, nullptr, nullptr, igenp) == DM_HANDLE_FILE) {
    KXDMAPI_TRACE("dm_handle_to_igen\n");
    return 0;
  }
  KXDMAPI_TRACE("dm_handle_to_igen: NOT!\n");
  errno = EBADF;
  return -1;
}

extern "C" int dm_handle_to_fshandle(const void *hanp, size_t hlen, void **fshanpp,
                                     size_t *fshlenp) {
  KXDMAPI_TRACE("dm_handle_to_fshandle\n");
  *fshanpp = nullptr;
  dm_fsid_t fsid = 0;
  if (dm_handle_to_fsid(hanp, hlen, &fsid) != 0) return -1;
  // Made here rather than through dm_make_fshandle: the trace shows one
  // call, as the driver's own trace of it does.
  *fshlenp = DM_FSHANDLE_LEN;
  *fshanpp = copy_block(&fsid, DM_FSHANDLE_LEN);
  return *fshanpp != nullptr ? 0 : -1;
}

extern "C" int dm_make_fshandle(const dm_fsid_t *fsidp, void **hanpp, size_t *hlenp) {
  KXDMAPI_TRACE("dm_make_fshandle\n");
  *hlenp = DM_FSHANDLE_LEN;
  *hanpp = copy_block(fsidp, DM_FSHANDLE_LEN);
  return *hanpp != nullptr ? 0 : -1;
}

extern "C" int dm_make_handle(const dm_fsid_t *fsidp, const dm_ino_t *inop, const dm_igen_t *igenp,
                              void **hanpp, size_t *hlenp) {
  KXDMAPI_TRACE("dm_make_handle\n");
  unsigned char h[DM_HANDLE_MAX];
  fill_file_handle(h, *fsidp, *inop, *igenp);
  *hlenp = DM_FILEHANDLE_LEN;
  *hanpp = copy_block(h, DM_FILEHANDLE_LEN);
  return *hanpp != nullptr ? 0 : -1;
}

extern "C" size_t dm_make_handle_nocopy(const dm_fsid_t *fsidp, const dm_ino_t *inop,
                                        const dm_igen_t *igenp, dm_handle_t *handlep) {
  KXDMAPI_TRACE("dm_make_handle\n");
  unsigned char h[DM_HANDLE_MAX];
  fill_file_handle(h, *fsidp, *inop, *igenp);
  std::memcpy(handlep, h, sizeof h);
  return DM_FILEHANDLE_LEN;
}

extern "C" int dm_fd_to_handle(int fd, void **hanpp, size_t *hlenp) {
  KXDMAPI_TRACE_ENTER("dm_fd_to_handle\n");
  *hanpp = nullptr;
  unsigned char payload[KXDMAPI_PATH_TO_HANDLE_LEN] = {};
  kxdmapi::put_native<int32_t>(payload, kxdmapi::p2h::kFd, fd);
  if (kxdmapi::request_result(ioctl(fd, KXDMAPI_IOC_FD_TO_HANDLE, payload)) != 0) {
    KXDMAPI_TRACE_EXIT("dm_fd_to_handle: could not fcntl, errno/%d\n", errno);
    return -1;
  }
  size_t len = 0;
  if (!kxdmapi::reply_handle_fits(payload, DM_HANDLE_MAX, &len)) {
    KXDMAPI_TRACE_EXIT("dm_fd_to_handle: could not fcntl, errno/%d\n", errno);
    return -1;
  }
  *hlenp = len;
  *hanpp = copy_block(payload, len);
  if (*hanpp == nullptr) {
    KXDMAPI_TRACE_EXIT("dm_fd_to_handle: no memory, errno %d.\n", errno);
    return -1;
  }
  KXDMAPI_TRACE_EXIT("dm_fd_to_handle: success\n");
  return 0;
}

extern "C" int dm_handle_cmp(const void *hanp1, size_t hlen1, const void *hanp2, size_t hlen2) {
  KXDMAPI_TRACE_ENTER("dm_handle_cmp\n");
  if (hlen1 != hlen2) {
    // 32-bit difference: shorter handles order first.
    int diff = static_cast<int>(static_cast<uint32_t>(hlen1) - static_cast<uint32_t>(hlen2));
    KXDMAPI_TRACE_EXIT("dm_handle_cmp: != length, result/%d\n", diff);
    return diff;
  }
  if (hanp1 == hanp2) {
    KXDMAPI_TRACE_EXIT("dm_handle_cmp: EQUAL!, errno/%d\n", errno);
    return 0;
  }
  int result = compare_bytes(hanp1, hanp2, hlen1);
  if (result == 0)
    KXDMAPI_TRACE_EXIT("dm_handle_cmp, result/%d\n", 0);
  else
    KXDMAPI_TRACE_EXIT("dm_handle_cmp: NOT! (%d) memcmp\n", result);
  return result;
}

extern "C" uint32_t dm_handle_hash(const void *hanp, size_t hlen) {
  KXDMAPI_TRACE("dm_handle_hash\n");
  if (dm_handle_is_global(hanp, hlen) || hanp == nullptr) return 0;
  const auto *bytes = static_cast<const unsigned char *>(hanp);
  uint32_t sum = 0;
  for (size_t i = 0; i < hlen; ++i) sum += bytes[i];
  return sum;
}
