// Event lists and dispositions: a file handle's list goes by ioctl on a
// descriptor of the file, a file system's (and every disposition request)
// through the driver channel. The event-message and event-file calls are in
// kxdmapi_eventmsg.cpp.
#include "kxdmapi/kxdmapi_events.h"

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_events_wire.h"
#include "kxdmapi/kxdmapi_fdcache.h"
#include "kxdmapi/kxdmapi_handles.h"
#include "kxdmapi/kxdmapi_init.h"

namespace {

using kxdmapi::fail;

using namespace kxdmapi_events_wire;

bool maxevent_ok(unsigned int maxevent) {
  return maxevent >= 1 && maxevent <= DM_EVENT_MAX;
}

// Sends payload by ioctl on a descriptor of the file opened by handle; the
// ioctl's errno survives the close. name prefixes the failure traces.
template <typename Payload>
int file_request(const char *name, const void *hanp, size_t hlen, unsigned long request,
                 Payload &payload) {
  const int fd = dm_open_by_handle(hanp, hlen, 0);
  if (fd < 0) {
    KXDMAPI_TRACE_EXIT("%s: could not open_by_handle, errno/%d\n", name, errno);
    return -1;
  }
  const int rc = ioctl(fd, request, &payload);
  const int saved_errno = errno;
  dm_close_by_handle(hanp, hlen, fd);
  errno = saved_errno;
  if (rc == -1) {
    KXDMAPI_TRACE_EXIT("%s: could not fcntl, errno/%d\n", name, errno);
    return -1;
  }
  KXDMAPI_TRACE_EXIT("%s: success\n", name);
  return 0;
}

// Sends payload through the driver channel for a file-system handle, with
// its fsid at *fsidp; a handle without one (the global handle) is EBADF.
template <typename Payload>
int fs_request(const char *name, const void *hanp, size_t hlen, int func, Payload &payload,
               uint64_t *fsidp) {
  dm_fsid_t fsid = 0;
  if (dm_handle_to_fsid(hanp, hlen, &fsid) != 0) {
    errno = EBADF;
    KXDMAPI_TRACE_EXIT("%s: invalid handle.2, errno/%d\n", name, errno);
    return -1;
  }
  *fsidp = fsid;
  if (kxdmapi_call_driver(func, &payload, sizeof payload) != 0) {
    KXDMAPI_TRACE_EXIT("%s: failed, errno/%d\n", name, errno);
    return -1;
  }
  KXDMAPI_TRACE_EXIT("%s: success\n", name);
  return 0;
}

bool is_file_handle(const void *hanp, size_t hlen) {
  dm_igen_t igen = 0;
  return dm_handle_to_igen(hanp, hlen, &igen) == 0;
}

// The common path of dm_update_eventlist and dm_set_eventlist.
template <typename Payload>
int eventlist_change(const char *name, const void *hanp, size_t hlen, unsigned int maxevent,
                     unsigned long file_request_code, int driver_func, Payload &payload) {
  KXDMAPI_TRACE_ENTER("%s\n", name);
  if (!maxevent_ok(maxevent)) {
    errno = EINVAL;
    KXDMAPI_TRACE_EXIT("%s: invalid maxevent/%d\n", name, static_cast<int>(maxevent));
    return -1;
  }
  if (!dm_handle_is_valid(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE_EXIT("%s: invalid handle, errno/%d\n", name, errno);
    return -1;
  }
  if (is_file_handle(hanp, hlen)) return file_request(name, hanp, hlen, file_request_code, payload);
  return fs_request(name, hanp, hlen, driver_func, payload, &payload.fsid);
}

uint32_t clamp_u32(size_t n) {
  return n > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(n);
}

// The handle and descriptor forms of the list changes send the same payloads.
UpdateEventlist update_payload(dm_sessid_t sid, dm_token_t token, const dm_eventset_t &to_set,
                               const dm_eventset_t &to_clear, unsigned int maxevent) {
  UpdateEventlist payload{};
  payload.sid = sid;
  payload.token = token;
  payload.maxevent = maxevent;
  payload.events_to_set = to_set;
  payload.events_to_clear = to_clear;
  return payload;
}

SetEventlist set_payload(dm_sessid_t sid, dm_token_t token, const dm_eventset_t &eventset,
                         unsigned int maxevent) {
  SetEventlist payload{};
  payload.sid = sid;
  payload.token = token;
  payload.maxevent = maxevent;
  payload.eventset = eventset;
  return payload;
}

}  // namespace

int dm_update_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                        const dm_eventset_t *events_to_setp, const dm_eventset_t *events_to_clearp,
                        unsigned int maxevent) {
  if (events_to_setp == nullptr || events_to_clearp == nullptr) return fail(EINVAL);
  UpdateEventlist payload =
      update_payload(sid, token, *events_to_setp, *events_to_clearp, maxevent);
  return eventlist_change("dm_update_eventlist", hanp, hlen, maxevent, KXDMAPI_IOC_UPDATE_EVENTLIST,
                          DMIG_UPDATE_EVENTLIST, payload);
}

int dm_update_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token,
                           const dm_eventset_t *events_to_setp,
                           const dm_eventset_t *events_to_clearp, unsigned int maxevent) {
  if (events_to_setp == nullptr || events_to_clearp == nullptr) return fail(EINVAL);
  UpdateEventlist payload =
      update_payload(sid, token, *events_to_setp, *events_to_clearp, maxevent);
  return ioctl(fd, KXDMAPI_IOC_UPDATE_EVENTLIST, &payload) == -1 ? -1 : 0;
}

int dm_set_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                     const dm_eventset_t *eventsetp, unsigned int maxevent) {
  if (eventsetp == nullptr) return fail(EINVAL);
  SetEventlist payload = set_payload(sid, token, *eventsetp, maxevent);
  return eventlist_change("dm_set_eventlist", hanp, hlen, maxevent, KXDMAPI_IOC_SET_EVENTLIST,
                          DMIG_SET_EVENTLIST, payload);
}

int dm_set_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token, const dm_eventset_t *eventsetp,
                        unsigned int maxevent) {
  if (eventsetp == nullptr) return fail(EINVAL);
  SetEventlist payload = set_payload(sid, token, *eventsetp, maxevent);
  return ioctl(fd, KXDMAPI_IOC_SET_EVENTLIST, &payload) == -1 ? -1 : 0;
}

int dm_get_eventlist(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                     unsigned int nelem, dm_eventset_t *eventsetp, unsigned int *nelemp) {
  if (nelem == 0 || eventsetp == nullptr || nelemp == nullptr) return fail(EINVAL);
  static constexpr char kName[] = "dm_get_eventlist";
  KXDMAPI_TRACE_ENTER("%s\n", kName);
  if (!dm_handle_is_valid(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE_EXIT("%s: invalid handle, errno/%d\n", kName, errno);
    return -1;
  }
  GetEventlist payload{};
  if (!dm_handle_is_global(hanp, hlen)) memcpy(payload.handle, hanp, hlen);
  payload.sid = sid;
  payload.token = token;
  payload.hlen = static_cast<uint32_t>(hlen);
  payload.nelem = nelem;
  dm_fsid_t fsid = 0;
  if (dm_handle_to_fsid(hanp, hlen, &fsid) != 0) {
    errno = EBADF;
    KXDMAPI_TRACE_EXIT("%s: invalid handle.2, errno/%d\n", kName, errno);
    return -1;
  }
  payload.fsid = fsid;
  if (is_file_handle(hanp, hlen)) {
    if (file_request(kName, hanp, hlen, KXDMAPI_IOC_GET_EVENTLIST, payload) != 0) return -1;
    *nelemp = payload.nelem;
    *eventsetp = payload.eventset;
    return 0;
  }
  const int rc = kxdmapi_call_driver(DMIG_GET_EVENTLIST, &payload, sizeof payload);
  *nelemp = payload.nelem;
  *eventsetp = payload.eventset;
  if (rc != 0) {
    KXDMAPI_TRACE_EXIT("%s: failed, errno/%d\n", kName, errno);
    return -1;
  }
  KXDMAPI_TRACE_EXIT("%s: success\n", kName);
  return 0;
}

int dm_get_eventlist_fd(int fd, dm_sessid_t sid, dm_token_t token, unsigned int nelem,
                        dm_eventset_t *eventsetp, unsigned int *nelemp) {
  if (eventsetp == nullptr || nelemp == nullptr) return fail(EINVAL);
  GetEventlist payload{};
  payload.sid = sid;
  payload.token = token;
  payload.nelem = nelem;
  if (ioctl(fd, KXDMAPI_IOC_GET_EVENTLIST, &payload) == -1) return -1;
  *nelemp = payload.nelem;
  *eventsetp = payload.eventset;
  return 0;
}

int dm_set_disp(dm_sessid_t sid, const void *hanp, size_t hlen, dm_token_t token,
                const dm_eventset_t *eventsetp, unsigned int maxevent) {
  if (!dm_handle_is_valid(hanp, hlen)) {
    errno = EBADF;
    KXDMAPI_TRACE("dm_set_disp: invalid handle, errno/%d\n", errno);
    return -1;
  }
  if (eventsetp == nullptr) return fail(EINVAL);
  SetDisp payload{};
  payload.sid = sid;
  payload.token = token;
  payload.maxevent = maxevent;
  payload.eventset = *eventsetp;
  // The global handle goes as 64 zero bytes with length 1.
  if (!dm_handle_is_global(hanp, hlen)) memcpy(payload.handle, hanp, hlen);
  payload.hlen = static_cast<uint32_t>(hlen);
  if (kxdmapi_call_driver(DMIG_SET_DISP, &payload, sizeof payload) != 0) {
    KXDMAPI_TRACE("dm_set_disp: failed, errno/%d\n", errno);
    return -1;
  }
  KXDMAPI_TRACE("dm_set_disp: success\n");
  return 0;
}

int dm_getall_disp(dm_sessid_t sid, size_t buflen, void *bufp, size_t *rlenp) {
  if (rlenp == nullptr) return fail(EINVAL);
  GetallDisp payload{};
  payload.sid = sid;
  payload.buflen = clamp_u32(buflen);
  payload.buf = user_address(bufp);
  const int rc = kxdmapi_call_driver(DMIG_GETALL_DISP, &payload, sizeof payload);
  *rlenp = payload.buflen;
  if (rc != 0) {
    // The failure line names dm_set_disp: the wording callers' log readers know.
    KXDMAPI_TRACE("dm_set_disp: failed, errno/%d\n", errno);
    return -1;
  }
  // More than the caller's buffer cannot have been written there.
  return payload.buflen > buflen ? fail(EIO) : 0;
}
