// The event-message path and the event-file calls: each is one fixed-size
// driver request, with no handle and no descriptor of its own.
#include "kxdmapi/kxdmapi_events.h"

#include <errno.h>
#include <string.h>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_events_wire.h"
#include "kxdmapi/kxdmapi_init.h"

namespace {

using kxdmapi::fail;

using namespace kxdmapi_events_wire;

// The event-file calls take the types 7, 20, 28 and 40-45 only.
bool event_file_type(dm_eventtype_t event) {
  constexpr uint64_t kEventFileTypes = 0x3F0010100080ULL;
  const int type = static_cast<int>(event);
  return type >= 0 && type <= DM_EVENT_MAX_VALUE && ((kEventFileTypes >> type) & 1) != 0;
}

// Sends a request whose reply length comes back in payload.buflen. The
// length is stored on failure too: with E2BIG it is the length needed. A
// success that claims more than the caller's buflen cannot have been written
// there: the driver's fault, never a success to read the buffer by.
template <typename Payload>
int call_with_reply_len(int func, Payload &payload, size_t buflen, size_t *rlenp) {
  const int rc = kxdmapi_call_driver(func, &payload, sizeof payload);
  *rlenp = static_cast<size_t>(payload.buflen);
  if (rc != 0) return -1;
  return payload.buflen > buflen ? fail(EIO) : 0;
}

}  // namespace

int dm_get_events(dm_sessid_t sid, unsigned int maxmsgs, unsigned int flags, size_t buflen,
                  void *bufp, size_t *rlenp) {
  if (rlenp == nullptr) return fail(EINVAL);
  GetEvents payload{};
  payload.sid = sid;
  payload.maxmsgs = maxmsgs;
  payload.flags = flags;
  payload.buflen = buflen;
  payload.buf = user_address(bufp);
  return call_with_reply_len(DMIG_GET_EVENTS, payload, buflen, rlenp);
}

int dm_find_eventmsg(dm_sessid_t sid, dm_token_t token, size_t buflen, void *bufp, size_t *rlenp) {
  if (rlenp == nullptr) return fail(EINVAL);
  FindEventmsg payload{};
  payload.sid = sid;
  payload.token = token;
  payload.buflen = buflen;
  payload.buf = user_address(bufp);
  return call_with_reply_len(DMIG_FIND_EVENTMSG, payload, buflen, rlenp);
}

int dm_respond_event(dm_sessid_t sid, dm_token_t token, dm_response_t response, int reterror,
                     size_t buflen, void *respbufp) {
  if (reterror != 0 || response != DM_RESP_CONTINUE) {
    KXDMAPI_TRACE("dm_respond_event: response/%d reterrno/%d\n", static_cast<int>(response),
                  reterror);
  }
  RespondEvent payload{};
  payload.sid = sid;
  payload.token = token;
  payload.response = static_cast<uint16_t>(response);
  payload.reterror = static_cast<uint16_t>(reterror);
  payload.buflen = buflen;
  payload.buf = user_address(respbufp);
  return kxdmapi_call_driver(DMIG_RESPOND_EVENT, &payload, sizeof payload) == 0 ? 0 : -1;
}

int dm_roll_eventfile(dm_sessid_t sid, uint64_t arg, dm_eventtype_t event) {
  if (!event_file_type(event)) {
    KXDMAPI_TRACE("dm_roll_eventfile: invalid event/%d\n", static_cast<int>(event));
    return fail(EINVAL);
  }
  RollEventfile payload{};
  payload.sid = sid;
  payload.arg = arg;
  payload.event = static_cast<uint32_t>(event);
  return kxdmapi_call_driver(DMIG_ROLL_EVENTFILE, &payload, sizeof payload) == 0 ? 0 : -1;
}

int dm_add_evententry(dm_sessid_t sid, uint64_t arg, dm_eventtype_t event, size_t datalen,
                      const void *datap) {
  if (!event_file_type(event)) {
    KXDMAPI_TRACE("dm_add_evententry: invalid event/%d\n", static_cast<int>(event));
    return fail(EINVAL);
  }
  AddEvententry payload{};
  if (datalen > sizeof payload.data || (datap == nullptr && datalen != 0)) return fail(EINVAL);
  payload.sid = sid;
  payload.arg = arg;
  payload.event = static_cast<uint32_t>(event);
  payload.datalen = static_cast<uint32_t>(datalen);
  if (datalen != 0) memcpy(payload.data, datap, datalen);
  return kxdmapi_call_driver(DMIG_ADD_EVENTENTRY, &payload, sizeof payload) == 0 ? 0 : -1;
}

int dm_get_dir(uint64_t arg, int type, char *path) {
  if (path == nullptr || type != 1) {
    if (type != 1) KXDMAPI_TRACE("dm_get_dir: invalid type/%d\n", type);
    return fail(EINVAL);
  }
  GetDir payload{};
  payload.arg = arg;
  payload.type = 1;
  if (kxdmapi_call_driver(DMIG_GET_DIR, &payload, sizeof payload) != 0) return -1;
  // The driver's text is bounded here whether or not it ended it.
  const size_t len = strnlen(payload.path, DM_GET_DIR_PATH_MAX - 1);
  memcpy(path, payload.path, len);
  path[len] = '\0';
  return 0;
}
