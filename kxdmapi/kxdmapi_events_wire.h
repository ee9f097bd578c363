// Request payloads of the event-list, disposition and event-message calls,
// in the driver's native byte order. Library-internal (C++ only): callers see
// only the functions of kxdmapi_events.h. Every payload is value-initialised
// (all zero) before its fields are set.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kxdmapi/kxdmapi_types.h"
#include "kxdmapi/kxdmapi_wire.h"

namespace kxdmapi_events_wire {

// A caller's buffer address as the driver reads it.
inline dm_useraddr_t user_address(const void *p) {
  return reinterpret_cast<uintptr_t>(p);
}

struct UpdateEventlist {  // driver request 40, ioctl 0x426
  dm_sessid_t sid;
  dm_token_t token;
  uint32_t maxevent;
  uint32_t pad;
  uint64_t fsid;  // file-system handle form only
  dm_eventset_t events_to_set;
  dm_eventset_t events_to_clear;
};
static_assert(sizeof(UpdateEventlist) == 40 && offsetof(UpdateEventlist, fsid) == 16);

struct SetEventlist {  // driver request 10, ioctl 0x40B
  dm_sessid_t sid;
  dm_token_t token;
  uint32_t maxevent;
  uint32_t pad;
  uint64_t fsid;
  dm_eventset_t eventset;
};
static_assert(sizeof(SetEventlist) == 32 && offsetof(SetEventlist, eventset) == 24);

struct GetEventlist {  // driver request 9, ioctl 0x40A
  unsigned char handle[DM_HANDLE_MAX];
  dm_sessid_t sid;
  dm_token_t token;
  uint32_t hlen;
  uint32_t nelem;  // in: types asked for; out: types returned
  uint64_t fsid;
  dm_eventset_t eventset;  // out
};
static_assert(sizeof(GetEventlist) == 96 && offsetof(GetEventlist, nelem) == 76 &&
              offsetof(GetEventlist, eventset) == 88);

struct SetDisp {  // driver request 15
  dm_sessid_t sid;
  dm_token_t token;
  uint32_t maxevent;
  uint32_t hlen;
  dm_eventset_t eventset;
  unsigned char handle[DM_HANDLE_MAX];
};
static_assert(sizeof(SetDisp) == 88 && offsetof(SetDisp, handle) == 24);

struct GetallDisp {  // driver request 17
  dm_sessid_t sid;
  uint32_t buflen;  // in: buffer length; out: bytes returned
  dm_useraddr_t buf;
};
static_assert(sizeof(GetallDisp) == 16);

struct GetEvents {  // driver request 18
  dm_sessid_t sid;
  uint32_t maxmsgs;
  uint32_t flags;
  uint32_t pad;
  uint64_t buflen;  // in: buffer length; out: bytes returned
  dm_useraddr_t buf;
};
static_assert(sizeof(GetEvents) == 32 && offsetof(GetEvents, buflen) == 16);

struct FindEventmsg {  // driver request 21
  dm_sessid_t sid;
  dm_token_t token;
  uint64_t buflen;  // in: buffer length; out: bytes returned
  dm_useraddr_t buf;
};
static_assert(sizeof(FindEventmsg) == 24);

struct RespondEvent {  // driver request 22
  dm_sessid_t sid;
  dm_token_t token;
  uint32_t unused;
  uint16_t response;
  uint16_t reterror;
  uint64_t buflen;
  dm_useraddr_t buf;
};
static_assert(sizeof(RespondEvent) == 32 && offsetof(RespondEvent, response) == 12);

struct RollEventfile {  // driver request 37
  dm_sessid_t sid;
  uint32_t pad;
  uint64_t arg;
  uint32_t event;
  uint32_t pad2;
};
static_assert(sizeof(RollEventfile) == 24 && offsetof(RollEventfile, event) == 16);

constexpr size_t kEvententryDataMax = 1232;
struct AddEvententry {  // driver request 38
  dm_sessid_t sid;
  uint32_t pad;
  uint64_t arg;
  uint32_t event;
  uint32_t datalen;
  unsigned char data[kEvententryDataMax];
};
static_assert(sizeof(AddEvententry) == 1256 && offsetof(AddEvententry, data) == 24);

struct GetDir {  // driver request 39
  uint64_t arg;
  uint32_t type;
  char path[1028];  // out: NUL-terminated
};
static_assert(sizeof(GetDir) == 1040 && offsetof(GetDir, path) == 12);

}  // namespace kxdmapi_events_wire
