// External representations and their neighbours: each call fills one fixed
// record and issues one ioctl on the caller's descriptor, reporting failure as
// a positive error number.
#include <errno.h>
#include <string.h>
#include <sys/ioctl.h>

#include <cstdint>

#include "extapi/kxapi.h"

namespace {

// The family's result convention: 0, or the failing ioctl's errno. A failure
// that left errno 0 would read as success, so it is reported as EIO.
template <typename Record>
int issue(int fd, unsigned long request, Record *record) {
  if (ioctl(fd, request, record) != -1) return 0;
  return errno != 0 ? errno : EIO;
}

// Key names fill a 32-byte field; the file system expects them terminated,
// so 31 characters is the limit. Returns 0 or the error number.
int copy_keyname(char (&field)[KXAPI_KEYNAME_SIZE], const char *keyname) {
  if (keyname == nullptr) return EINVAL;
  const size_t len = strnlen(keyname, KXAPI_KEYNAME_SIZE);
  if (len == KXAPI_KEYNAME_SIZE) return ENAMETOOLONG;
  memcpy(field, keyname, len);
  field[len] = '\0';
  return 0;
}

uint64_t user_address(const void *p) {
  return reinterpret_cast<uintptr_t>(p);
}

}  // namespace

int KxApi_GetExternalRep(int f_fd, uint64_t f_offset, uint64_t f_length, const char *f_keyname,
                         uint32_t *f_fieldlen, uint32_t *f_buflen, void *f_data) {
  if (f_fieldlen == nullptr || f_buflen == nullptr) return EINVAL;
  ExternalRepSet_t rec{};
  if (const int error = copy_keyname(rec.ext_keyname, f_keyname); error != 0) return error;
  rec.ext_offset = f_offset;
  rec.ext_length = f_length;
  rec.ext_datalen = *f_buflen;
  rec.ext_dataoffset = 0;
  rec.ext_data = user_address(f_data);
  const int error = issue(f_fd, KXAPI_GET_EXTERNAL_REP, &rec);
  if (error != 0) return error;
  *f_fieldlen = rec.ext_fieldlen;
  *f_buflen = rec.ext_datalen;
  return 0;
}

int KxApi_SetExternalRep(int f_fd, uint32_t f_entry_flags, uint64_t f_offset, uint64_t f_length,
                         uint64_t f_dataoffset, const char *f_keyname, uint32_t f_datalen,
                         const void *f_data, uint32_t f_op_flags, void *f_split_data) {
  ExternalRepSet_t rec{};
  if (const int error = copy_keyname(rec.ext_keyname, f_keyname); error != 0) return error;
  rec.ext_entry_flags = f_entry_flags;
  rec.ext_offset = f_offset;
  rec.ext_length = f_length;
  rec.ext_fieldlen = f_datalen;
  rec.ext_datalen = f_datalen;
  rec.ext_dataoffset = f_dataoffset;
  rec.ext_data = user_address(f_data);
  rec.ext_op_flags = f_op_flags;
  rec.ext_split_data = user_address(f_split_data);
  return issue(f_fd, KXAPI_SET_EXTERNAL_REP, &rec);
}

int KxApi_RemoveExternalRep(int f_fd, uint64_t f_offset, uint32_t f_op_flags,
                            const char *f_keyname) {
  ExternalRepSet_t rec{};
  if (const int error = copy_keyname(rec.ext_keyname, f_keyname); error != 0) return error;
  rec.ext_offset = f_offset;
  rec.ext_op_flags = f_op_flags;
  return issue(f_fd, KXAPI_REMOVE_EXTERNAL_REP, &rec);
}

int KxApi_SetIngestParam(int f_fd, uint64_t f_fencepost_gap, uint64_t f_seg_size,
                         uint32_t f_seg_age) {
  IngestParamSet_t rec{};
  rec.ext_ingest_fencepost_gap = f_fencepost_gap;
  rec.ext_ingest_max_seg_size = f_seg_size;
  rec.ext_ingest_max_seg_age = f_seg_age;
  return issue(f_fd, KXAPI_SET_INGEST_PARAM, &rec);
}

int KxApi_SetFenceposts(int f_fd, uint64_t f_start, uint64_t f_end) {
  FencePostParamSet_t rec{};
  rec.ext_fencepost_offset = f_start;
  rec.ext_fencepost_end = f_end;
  return issue(f_fd, KXAPI_SET_FENCEPOSTS, &rec);
}

int KxApi_BulkLink(int f_dirfd, _BulkLink *f_reqbuf) {
  if (f_reqbuf == nullptr) return EINVAL;
  return issue(f_dirfd, KXAPI_BULK_LINK, f_reqbuf);
}
