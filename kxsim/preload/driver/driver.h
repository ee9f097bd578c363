// Layer driver (kxsim/preload/driver/): called only by the interposers;
// calls the simulator's state (preload/) and core/.
//
// The simulated driver's requests. Every payload is read and written by the
// byte offsets of the driver's tables (bytes.h); nothing here shares a
// struct with the client libraries.
//
// All functions run under Simulator::Scope. Operation handlers return 0 or
// the positive errno the request fails with.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "kxsim/core/config.h"
#include "kxsim/core/identity.h"
#include "kxsim/preload/request.h"
#include "kxsim/preload/simulator.h"

namespace kxsim {

// Request numbers of ioctl on the file system's own files.
namespace req {
inline constexpr unsigned long kGetEventList = 0x40A;       // 1034
inline constexpr unsigned long kSetEventList = 0x40B;       // 1035
inline constexpr unsigned long kGetAttr = 0x40C;            // 1036
inline constexpr unsigned long kGetDmattr = 0x40E;          // 1038
inline constexpr unsigned long kSetDmattr = 0x40F;          // 1039
inline constexpr unsigned long kFdToHandle = 0x416;         // 1046
inline constexpr unsigned long kHandleToPath = 0x419;       // 1049
inline constexpr unsigned long kRemoveDmattr = 0x422;       // 1058
inline constexpr unsigned long kSetAttr = 0x425;            // 1061
inline constexpr unsigned long kUpdateEventList = 0x426;    // 1062
inline constexpr unsigned long kGetFilestatNoOpen = 0x427;  // 1063
inline constexpr unsigned long kGetAttrNoOpen = 0x428;      // 1064
inline constexpr unsigned long kFsData = 0xA1E;             // 2590
inline constexpr unsigned long kSetExtRep = 0xD31;
inline constexpr unsigned long kGetExtRep = 0xD32;
inline constexpr unsigned long kRemoveExtRep = 0xD33;
inline constexpr unsigned long kSetIngestParam = 0xD39;
inline constexpr unsigned long kSetFenceposts = 0xD43;
inline constexpr unsigned long kBulkLink = 0xD44;
// On the control device.
inline constexpr unsigned long kDmig = 0xc018e571;
inline constexpr unsigned long kMountChangeTime = 0x8010E693;
}  // namespace req

// The object a file request acts on.
struct FileTarget {
  const Mount &mount;
  std::string path;  // absolute
  Identity id;
};

// A request on the control device. Returns the ioctl result (errno set).
int control_ioctl(Simulator &sim, int fd, unsigned long request, void *arg);

// A request on a descriptor: nullopt when it is not the simulator's (not one
// of its request numbers, or a descriptor outside every simulated mount);
// the caller then passes it to the C library.
bool is_file_request(unsigned long request);
// What a request on a descriptor needs to know of the object before the
// simulator's lock: its path and identity. Looked up without the lock, as a
// driver looks objects up for many requests at once; the answers keep
// their errnos for the moment the request would have met them.
struct FdObject {
  std::string path;
  int path_errno = 0;
  Identity id;
  int id_errno = 0;
};
FdObject look_up_fd(int fd);
std::optional<int> file_ioctl(Simulator &sim, int fd, unsigned long request, void *arg,
                              const FdObject &object);

// Operation handlers, by family.
int op_get_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p);
int op_set_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_remove_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p);
// The name an attribute request carries (bytes 24-31), for faults and log.
std::string dmattr_name(const unsigned char *p);

int op_get_attr(Simulator &sim, const FileTarget &t, unsigned char *p);
int op_fd_to_handle(Simulator &sim, const FileTarget &t, unsigned char *p);
int op_handle_to_path(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_fs_data(const FileTarget &t, unsigned char *p);

int op_file_get_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_file_set_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_file_update_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p,
                             RequestInfo &info);
// The file-system forms (driver requests 9, 10 and 40): fsid in the payload.
int op_fs_get_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info);
int op_fs_set_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info);
int op_fs_update_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info);

int op_set_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_get_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
int op_remove_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info);
// The name an external-representation record carries (bytes 24-55).
std::string extrep_name(const unsigned char *p);

// Path to handle (driver request 7).
int op_path_to_handle(Simulator &sim, unsigned char *p, RequestInfo &info);

// Loads / saves a file's state; return 0 or an errno.
int load_state(Simulator &sim, const FileTarget &t, ObjectState &st);
int save_state(Simulator &sim, const FileTarget &t, const ObjectState &st);

}  // namespace kxsim

namespace kxsim {
struct HandleFields;
// The absolute path of the file a handle names in mount m (the mount point
// for the root forms). 0, or ENOENT (no such file), ESTALE (the inode now
// belongs to another file: non-zero generation that differs), EINVAL (a
// file-system handle or another file system's).
int resolve_file_handle(Simulator &sim, const Mount &m, const HandleFields &h, std::string &abs);
}  // namespace kxsim
