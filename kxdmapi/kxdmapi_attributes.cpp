// Data-management attributes and DMAPI file attributes: one ioctl on a
// descriptor of the file, or, in the handle forms, on a descriptor opened by
// handle through the open-file cache.
#include "kxdmapi/kxdmapi_attributes.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <limits>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_fdcache.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_wire.h"

namespace {

using kxdmapi::fail;

// Payloads in native byte order, zeroed before their fields are set.
struct dm_get_dmattr_t {
  dm_sessid_t dm_gdmattr_sid;
  dm_token_t dm_gdmattr_token;
  uint32_t dm_gdmattr_align1;
  uint32_t dm_gdmattr_buflen;  // in: the caller's length; out: the value's
  uint64_t dm_gdmattr_file_cookie;
  dm_attrname_t dm_gdmattr_name;
  unsigned char dm_gdmattr_data[DM_ATTR_VALUE_MAX];
};
static_assert(sizeof(dm_get_dmattr_t) == 160);
static_assert(offsetof(dm_get_dmattr_t, dm_gdmattr_name) == 24);

struct dm_set_dmattr_t {
  dm_sessid_t dm_sdmattr_sid;
  dm_token_t dm_sdmattr_token;
  uint32_t dm_sdmattr_align1;
  uint16_t dm_sdmattr_setdtime;
  uint16_t dm_sdmattr_buflen;
  uint64_t dm_sdmattr_file_cookie;
  dm_attrname_t dm_sdmattr_name;
  unsigned char dm_sdmattr_data[DM_ATTR_VALUE_MAX];
};
static_assert(sizeof(dm_set_dmattr_t) == 160);
static_assert(offsetof(dm_set_dmattr_t, dm_sdmattr_buflen) == 14);

struct dm_remove_dmattr_t {
  dm_sessid_t dm_rdmattr_sid;
  dm_token_t dm_rdmattr_token;
  uint32_t dm_rdmattr_align1;
  uint16_t dm_rdmattr_setdtime;
  uint16_t dm_rdmattr_buflen;
  uint64_t dm_rdmattr_file_cookie;
  dm_attrname_t dm_rdmattr_name;
};
static_assert(sizeof(dm_remove_dmattr_t) == 32);

struct dm_get_attr_t {
  dm_sessid_t dm_fa_sid;
  dm_token_t dm_fa_token;
  uint64_t dm_fa_mask;
  dm_stat_t dm_fa_stat;
};
static_assert(sizeof(dm_get_attr_t) == 184);

struct dm_set_attr_t {
  dm_sessid_t dm_fa_sid;
  dm_token_t dm_fa_token;
  uint64_t dm_fa_mask;
  dm_fileattr_v2_t dm_fa_attr;
};
static_assert(sizeof(dm_set_attr_t) == 80);

// Traces the exit line of a traced call and passes its result through; the
// tracer keeps errno.
int traced_exit(const char *name, int rc) {
  if (rc == 0) {
    KXDMAPI_TRACE_EXIT("%s: success\n", name);
  } else {
    KXDMAPI_TRACE_EXIT("%s: fail %d\n", name, errno);
  }
  return rc;
}

// Handle forms act on file handles only; anything else is refused before a
// descriptor is opened.
bool file_handle(const void *hanp, size_t hlen) {
  dm_igen_t igen = 0;
  return dm_handle_is_valid(hanp, hlen) && dm_handle_to_igen(hanp, hlen, &igen) == 0;
}

// Opens the handle's object, runs op on the descriptor and hands the
// descriptor back to the open-file cache, keeping op's errno across the
// close. The open itself refuses invalid handles with EBADF.
template <typename Op>
int with_opened_fd(const void *hanp, size_t hlen, Op op) {
  const int fd = dm_open_by_handle(hanp, hlen, 0);
  if (fd < 0) return -1;
  const int rc = op(fd);
  const int saved_errno = errno;
  dm_close_by_handle(hanp, hlen, fd);
  errno = saved_errno;
  return rc;
}

// The attribute calls act on files: anything but a file handle is refused
// before a descriptor is opened.
template <typename Op>
int with_handle_fd(const void *hanp, size_t hlen, Op op) {
  if (!file_handle(hanp, hlen)) return fail(EBADF);
  return with_opened_fd(hanp, hlen, op);
}

int get_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                  size_t buflen, void *bufp, size_t *rlenp) {
  if (attrnamep == nullptr || rlenp == nullptr || (bufp == nullptr && buflen != 0)) {
    return fail(EINVAL);
  }
  dm_get_dmattr_t req{};
  req.dm_gdmattr_sid = sid;
  req.dm_gdmattr_token = token;
  req.dm_gdmattr_buflen =
      static_cast<uint32_t>(std::min<size_t>(buflen, std::numeric_limits<uint32_t>::max()));
  req.dm_gdmattr_name = *attrnamep;
  *rlenp = 0;
  if (ioctl(file_fd, KXDMAPI_IOC_GET_DMATTR, &req) == -1) return -1;
  const size_t value_len = req.dm_gdmattr_buflen;
  // A length the payload cannot hold is the file system's fault: never copy
  // past the payload for it, nor pass it on as the length a caller should
  // make room for.
  if (value_len > sizeof req.dm_gdmattr_data) return fail(EIO);
  *rlenp = value_len;
  if (buflen < value_len) return fail(E2BIG);
  if (value_len != 0) memcpy(bufp, req.dm_gdmattr_data, value_len);
  return 0;
}

int set_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                  int setdtime, size_t buflen, const void *bufp) {
  if (attrnamep == nullptr || (bufp == nullptr && buflen != 0)) return fail(EINVAL);
  dm_set_dmattr_t req{};
  if (buflen > sizeof req.dm_sdmattr_data) return fail(E2BIG);
  req.dm_sdmattr_sid = sid;
  req.dm_sdmattr_token = token;
  req.dm_sdmattr_setdtime = static_cast<uint16_t>(setdtime);
  req.dm_sdmattr_buflen = static_cast<uint16_t>(buflen);
  req.dm_sdmattr_name = *attrnamep;
  if (buflen != 0) memcpy(req.dm_sdmattr_data, bufp, buflen);
  return ioctl(file_fd, KXDMAPI_IOC_SET_DMATTR, &req) == -1 ? -1 : 0;
}

int remove_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, int setdtime,
                     const dm_attrname_t *attrnamep) {
  if (attrnamep == nullptr) return fail(EINVAL);
  dm_remove_dmattr_t req{};
  req.dm_rdmattr_sid = sid;
  req.dm_rdmattr_token = token;
  req.dm_rdmattr_setdtime = static_cast<uint16_t>(setdtime);
  req.dm_rdmattr_name = *attrnamep;
  return ioctl(file_fd, KXDMAPI_IOC_REMOVE_DMATTR, &req) == -1 ? -1 : 0;
}

int get_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                    dm_stat_t *statp) {
  if (statp == nullptr) return fail(EINVAL);
  dm_get_attr_t req{};
  req.dm_fa_sid = sid;
  req.dm_fa_token = token;
  req.dm_fa_mask = mask;
  if (ioctl(file_fd, KXDMAPI_IOC_GET_ATTR, &req) == -1) return -1;
  memcpy(statp, &req.dm_fa_stat, sizeof *statp);  // every byte, as returned
  return 0;
}

int update_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                       const dm_fileattr_v2_t *attrp) {
  if (attrp == nullptr) return fail(EINVAL);
  dm_set_attr_t req{};
  req.dm_fa_sid = sid;
  req.dm_fa_token = token;
  req.dm_fa_mask = mask;
  req.dm_fa_attr = *attrp;
  return ioctl(file_fd, KXDMAPI_IOC_SET_ATTR, &req) == -1 ? -1 : 0;
}

}  // namespace

int dm_get_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                     size_t buflen, void *bufp, size_t *rlenp) {
  KXDMAPI_TRACE_ENTER("dm_get_dmattr_fd\n");
  return traced_exit("dm_get_dmattr_fd",
                     get_dmattr_fd(file_fd, sid, token, attrnamep, buflen, bufp, rlenp));
}

int dm_set_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, const dm_attrname_t *attrnamep,
                     int setdtime, size_t buflen, const void *bufp) {
  KXDMAPI_TRACE_ENTER("dm_set_dmattr_fd\n");
  return traced_exit("dm_set_dmattr_fd",
                     set_dmattr_fd(file_fd, sid, token, attrnamep, setdtime, buflen, bufp));
}

int dm_remove_dmattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, int setdtime,
                        const dm_attrname_t *attrnamep) {
  KXDMAPI_TRACE_ENTER("dm_remove_dmattr_fd\n");
  return traced_exit("dm_remove_dmattr_fd",
                     remove_dmattr_fd(file_fd, sid, token, setdtime, attrnamep));
}

int dm_get_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                       dm_stat_t *statp) {
  KXDMAPI_TRACE_ENTER("dm_get_fileattr_fd\n");
  return traced_exit("dm_get_fileattr_fd", get_fileattr_fd(file_fd, sid, token, mask, statp));
}

int dm_update_fileattr_fd(int file_fd, dm_sessid_t sid, dm_token_t token, uint64_t mask,
                          const dm_fileattr_v2_t *attrp) {
  KXDMAPI_TRACE_ENTER("dm_update_fileattr_fd\n");
  return traced_exit("dm_update_fileattr_fd", update_fileattr_fd(file_fd, sid, token, mask, attrp));
}

int dm_get_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                  const dm_attrname_t *attrnamep, size_t buflen, void *bufp, size_t *rlenp) {
  KXDMAPI_TRACE_ENTER("dm_get_dmattr\n");
  const int rc = with_handle_fd(hanp, hlen, [&](int fd) {
    return dm_get_dmattr_fd(fd, sid, token, attrnamep, buflen, bufp, rlenp);
  });
  return traced_exit("dm_get_dmattr", rc);
}

int dm_set_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                  const dm_attrname_t *attrnamep, int setdtime, size_t buflen, const void *bufp) {
  KXDMAPI_TRACE_ENTER("dm_set_dmattr\n");
  const int rc = with_handle_fd(hanp, hlen, [&](int fd) {
    return dm_set_dmattr_fd(fd, sid, token, attrnamep, setdtime, buflen, bufp);
  });
  return traced_exit("dm_set_dmattr", rc);
}

int dm_remove_dmattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, int setdtime,
                     const dm_attrname_t *attrnamep) {
  KXDMAPI_TRACE_ENTER("dm_remove_dmattr\n");
  const int rc = with_handle_fd(
      hanp, hlen, [&](int fd) { return dm_remove_dmattr_fd(fd, sid, token, setdtime, attrnamep); });
  return traced_exit("dm_remove_dmattr", rc);
}

int dm_get_fileattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, uint64_t mask,
                    dm_stat_t *statp) {
  KXDMAPI_TRACE_ENTER("dm_get_fileattr\n");
  // Unlike the attribute calls, no file-handle check: whatever
  // dm_open_by_handle can open is read.
  const int rc = with_opened_fd(
      hanp, hlen, [&](int fd) { return dm_get_fileattr_fd(fd, sid, token, mask, statp); });
  return traced_exit("dm_get_fileattr", rc);
}

int dm_set_fileattr(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token, uint64_t mask,
                    const dm_fileattr_v2_t *attrp) {
  KXDMAPI_TRACE_ENTER("dm_set_fileattr\n");
  const int rc = with_handle_fd(
      hanp, hlen, [&](int fd) { return dm_update_fileattr_fd(fd, sid, token, mask, attrp); });
  return traced_exit("dm_set_fileattr", rc);
}
