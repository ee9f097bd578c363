// kxsim decodes every request from its own tables, so that a layout mistake
// in the client library cannot hide by being made twice. The price is two
// tables that may drift apart; this holds them against each other.
#include <gtest/gtest.h>

#include <cstddef>
#include <utility>

#include "extapi/kxapi.h"
#include "kxdmapi/kxdmapi_events_wire.h"
#include "kxdmapi/kxdmapi_init.h"
#include "kxdmapi/kxdmapi_wire.h"
#include "kxsim/preload/driver/dmig_codes.h"
#include "kxsim/preload/driver/driver.h"

namespace {

std::size_t simulated_size(int func) {
  for (const auto &code : kxsim::kCodes)
    if (code.func == func) return code.size;
  return 0;
}

TEST(RequestTables, IoctlNumbersAgree) {
  namespace req = kxsim::req;
  const std::pair<unsigned long, unsigned long> pairs[] = {
      {KXDMAPI_DMIG_IOCTL, req::kDmig},
      {KXDMAPI_IOC_MOUNT_CHANGE, req::kMountChangeTime},
      {KXDMAPI_IOC_FD_TO_HANDLE, req::kFdToHandle},
      {KXDMAPI_IOC_HANDLE_TO_PATH, req::kHandleToPath},
      {KXDMAPI_IOC_FS_DATA, req::kFsData},
      {KXDMAPI_IOC_GET_ATTR, req::kGetAttr},
      {KXDMAPI_IOC_GET_DMATTR, req::kGetDmattr},
      {KXDMAPI_IOC_SET_DMATTR, req::kSetDmattr},
      {KXDMAPI_IOC_REMOVE_DMATTR, req::kRemoveDmattr},
      {KXDMAPI_IOC_SET_ATTR, req::kSetAttr},
      {KXDMAPI_IOC_GET_EVENTLIST, req::kGetEventList},
      {KXDMAPI_IOC_SET_EVENTLIST, req::kSetEventList},
      {KXDMAPI_IOC_UPDATE_EVENTLIST, req::kUpdateEventList},
      {KXAPI_SET_EXTERNAL_REP, req::kSetExtRep},
      {KXAPI_GET_EXTERNAL_REP, req::kGetExtRep},
      {KXAPI_REMOVE_EXTERNAL_REP, req::kRemoveExtRep},
      {KXAPI_SET_INGEST_PARAM, req::kSetIngestParam},
      {KXAPI_SET_FENCEPOSTS, req::kSetFenceposts},
      {KXAPI_BULK_LINK, req::kBulkLink},
  };
  for (const auto &[library, simulator] : pairs)
    EXPECT_EQ(library, simulator) << std::hex << library;
}

TEST(RequestTables, ControlFramesAgreeInVersionAndPayloadSize) {
  namespace wire = kxdmapi_events_wire;
  EXPECT_EQ(DMIG_VERSION, kxsim::kDmigVersion);
  const std::pair<int, std::size_t> library[] = {
      {DMIG_PATH_TO_HANDLE, KXDMAPI_PATH_TO_HANDLE_LEN},
      {DMIG_GET_EVENTLIST, sizeof(wire::GetEventlist)},
      {DMIG_SET_EVENTLIST, sizeof(wire::SetEventlist)},
      {DMIG_SET_DISP, sizeof(wire::SetDisp)},
      {DMIG_GETALL_DISP, sizeof(wire::GetallDisp)},
      {DMIG_GET_EVENTS, sizeof(wire::GetEvents)},
      {DMIG_FIND_EVENTMSG, sizeof(wire::FindEventmsg)},
      {DMIG_RESPOND_EVENT, sizeof(wire::RespondEvent)},
      {DMIG_ROLL_EVENTFILE, sizeof(wire::RollEventfile)},
      {DMIG_ADD_EVENTENTRY, sizeof(wire::AddEvententry)},
      {DMIG_GET_DIR, sizeof(wire::GetDir)},
      {DMIG_UPDATE_EVENTLIST, sizeof(wire::UpdateEventlist)},
  };
  for (const auto &[func, size] : library)
    EXPECT_EQ(simulated_size(func), size) << "request " << func;
}

TEST(RequestTables, PathToHandlePayloadOffsetsAgree) {
  EXPECT_EQ(kxdmapi::p2h::kFlags, kxsim::kP2hFlags);
  EXPECT_EQ(kxdmapi::p2h::kPathLen, kxsim::kP2hLen);
  EXPECT_EQ(kxdmapi::p2h::kPath, kxsim::kP2hPath);
}

}  // namespace
