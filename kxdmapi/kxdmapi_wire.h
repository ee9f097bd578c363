// Byte-offset access to driver payloads (C++ only, not installed).
//
// Payloads are plain byte arrays whose layout is the driver's: native-order
// fields are copied with memcpy (no aliasing or alignment assumptions),
// big-endian handle fields are assembled byte by byte.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "libutil/big_endian.h"

// Every request the library sends besides the control channel's DMIG
// frames (their function codes are kxdmapi_init.h's DMIG_*), and the
// payload sizes the driver fixes.
#define KXDMAPI_DMIG_IOCTL 0xC018E571UL       /* the control channel's frame */
#define KXDMAPI_IOC_MOUNT_CHANGE 0x8010E693UL /* on the control device */
#define KXDMAPI_IOC_FD_TO_HANDLE 0x416UL      /* on the caller's descriptor */
#define KXDMAPI_IOC_HANDLE_TO_PATH 0x419UL    /* on the mount point */
#define KXDMAPI_IOC_FS_DATA 0xA1EUL           /* on the mount point */
#define KXDMAPI_IOC_GET_ATTR 0x40CUL          /* on the file's descriptor */
#define KXDMAPI_IOC_GET_DMATTR 0x40EUL
#define KXDMAPI_IOC_SET_DMATTR 0x40FUL
#define KXDMAPI_IOC_REMOVE_DMATTR 0x422UL
#define KXDMAPI_IOC_SET_ATTR 0x425UL
#define KXDMAPI_IOC_GET_EVENTLIST 0x40AUL
#define KXDMAPI_IOC_SET_EVENTLIST 0x40BUL
#define KXDMAPI_IOC_UPDATE_EVENTLIST 0x426UL

#define KXDMAPI_PATH_TO_HANDLE_LEN 1112 /* payload of DMIG 7 and 0x416 */
#define KXDMAPI_HANDLE_TO_PATH_LEN 1168
#define KXDMAPI_FS_DATA_LEN 64

#define KXDMAPI_MOUNT_CHANGE_DEVICE "/dev/kxfsctl" /* answers 0x8010E693 */
#define KXDMAPI_ROOT_KEY 2                         /* special-path key of a file system's root */

namespace kxdmapi {

template <typename T>
inline void put_native(unsigned char *buf, size_t offset, T value) {
  std::memcpy(buf + offset, &value, sizeof value);
}

template <typename T>
inline T get_native(const unsigned char *buf, size_t offset) {
  T value;
  std::memcpy(&value, buf + offset, sizeof value);
  return value;
}

// Path-to-handle payload (request 7, and ioctl 0x416 on a descriptor).
namespace p2h {
constexpr size_t kHandle = 0;    // 64 bytes out
constexpr size_t kFd = 72;       // 32-bit descriptor slot
constexpr size_t kFlags = 76;    // 32-bit flags
constexpr size_t kPathLen = 80;  // 32-bit length without the NUL
constexpr size_t kPath = 84;     // up to 1,025 bytes
}  // namespace p2h

// Length of the handle a driver reply holds: big-endian bytes 8-9 plus 10.
inline size_t reply_handle_len(const unsigned char *buf) {
  return static_cast<size_t>(kx_get_be(buf, 8, 2)) + 10;
}

// The reply's handle length in *len, or false with errno EIO when a handle
// record cannot hold it: such a reply is the driver's fault, not ours.
inline bool reply_handle_fits(const unsigned char *buf, size_t max, size_t *len) {
  *len = reply_handle_len(buf);
  if (*len <= max) return true;
  errno = EIO;
  return false;
}

// The library's failure return: -1 with errno set to `error`.
inline int fail(int error) {
  errno = error;
  return -1;
}

// A request's result as 0, or -1 with errno. An ioctl may return any
// non-negative number; a driver that answers other than 0 or -1 left no errno
// to report, and callers take every non-zero result for a failure.
inline int request_result(int result) {
  if (result == 0 || result == -1) return result;
  errno = EIO;
  return -1;
}

}  // namespace kxdmapi
