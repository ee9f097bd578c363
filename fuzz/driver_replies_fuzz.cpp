// What the kxfs driver sends back: arbitrary replies to every request whose
// reply the library decodes, from a fake driver inside this executable, and
// checks on what the library then hands its caller (lengths within the
// caller's buffer and the value limits, strings terminated, handle lengths
// within DM_HANDLE_MAX, the returned bytes those of the reply, errno set on
// failure). A faulty or hostile driver must not make the library overflow,
// read what it did not fill, or pass on an impossible result.
//
// driver_replies_libc.c routes ioctl, open, open64 and the mount-table calls
// here. The driver's descriptors are duplicates of one memory file: the
// control devices ("/dev/kxfsctl0", "/dev/kxfsctl") and every path under
// "/kxfuzz" (the fake mounts) open as one of them, and the descriptor calls
// get one too. Any other descriptor or path goes to the kernel.
//
// Input, read front to back (missing bytes read as zero):
//   setup      u8: bits 0-1 mount entries, bit 2 channel open at the start,
//                  bits 3-5 opens that fail (control device, mount-change
//                  device, paths under the mounts)
//   entry      u8 kind (bit 0 "kxfs", bit 1 no source, bit 2 long), u8 n +
//              n bytes appended to "/kxfuzz", [u16 count of 'x' appended when
//              long], u8 n + n bytes of source
//   operation  u8 call (see run_operation) and its arguments, at most 32
// and, wherever the library makes a request, the driver's reply:
//   u8 how     bits 0-1: 0 result 0, 1 result -1, 2 result 1 + u8, 3 result
//              0 with the buffer untouched (nothing else follows)
//   [u8]       errno index (result -1) or the u8 of a positive result
//   [u16]      offset into the buffer, when bit 3 of how is set
//   [u8]       fill byte, when bit 2 of how is set
//   u16 n, n bytes: copied into the request's buffer at the offset; the rest
//              of the buffer keeps the request's bytes or takes the fill byte
// A request after the end of the input fails with EIO.
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/driver_replies_fake.h"
#include "kxdmapi/kxdmapi.h"
#include "kxdmapi/kxdmapi_events_wire.h"
#include "kxdmapi/kxdmapi_private.h"
#include "kxdmapi/kxdmapi_wire.h"

namespace {

namespace wire = kxdmapi_events_wire;

// Request numbers on a file's descriptor and their payload sizes, which the
// attribute calls keep to themselves.
constexpr size_t kGetDmattrLen = 32 + DM_ATTR_VALUE_MAX;  // value at 32
constexpr size_t kDmattrValueOffset = 32;
constexpr size_t kGetAttrLen = 16 + sizeof(dm_stat_t);  // dm_stat at 16
constexpr size_t kStatOffset = 16;
constexpr size_t kH2pPathOffset = 144;
constexpr size_t kH2pPathRoom = KXDMAPI_HANDLE_TO_PATH_LEN - kH2pPathOffset;

constexpr char kMountPrefix[] = "/kxfuzz";
// The library's trace file, under KXFSLOGS, opened as /dev/null: traced calls
// format their lines in full, and nothing is left on disk when a run stops.
constexpr char kTraceRoot[] = "/kxtrace";
constexpr char kTraceFile[] = "/kxtrace/debug/dmapi.log";
constexpr size_t kLongestExtra = 2048;
constexpr int kMaxOperations = 32;
constexpr unsigned char kCanary = 0xA5;

inline void check(bool ok) {
  if (!ok) __builtin_trap();
}

// The input, shared by the operations and the driver's replies.
class Input {
 public:
  void reset(const uint8_t *data, size_t size) {
    data_ = data;
    size_ = size;
    pos_ = 0;
  }
  bool empty() const { return pos_ >= size_; }
  uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t u16() {
    const unsigned lo = u8();
    return static_cast<uint16_t>(lo | (unsigned{u8()} << 8));
  }
  uint32_t u32() {
    const uint32_t lo = u16();
    return lo | (uint32_t{u16()} << 16);
  }
  uint64_t u64() {
    const uint64_t lo = u32();
    return lo | (uint64_t{u32()} << 32);
  }
  // Consumes n bytes (fewer at the end) and copies the first `room` of them.
  size_t take(void *out, size_t n, size_t room) {
    const size_t got = std::min(n, size_ - pos_);
    const size_t copied = std::min(got, room);
    if (copied != 0) memcpy(out, data_ + pos_, copied);
    pos_ += got;
    return copied;
  }
  std::string text(size_t n) {
    std::string s(std::min(n, size_ - pos_), '\0');
    take(s.data(), s.size(), s.size());
    return s;
  }

 private:
  const uint8_t *data_ = nullptr;
  size_t size_ = 0;
  size_t pos_ = 0;
};

// The kinds of reply whose last bytes the checks compare with.
enum Reply {
  kPathToHandle,
  kFdToHandle,
  kHandleToPath,
  kDmattr,
  kFileattr,
  kEventlist,
  kGetDir,
  kReplyKinds
};

struct LastReply {
  bool valid = false;
  int result = 0;
  std::vector<unsigned char> bytes;
};

struct MountEntry {
  bool kxfs = false;
  bool has_source = false;
  std::string dir;
  std::string source;
};

constexpr int kErrnos[] = {EIO,    EBADF,  ENOENT, EPERM,        EINVAL,  E2BIG,
                           ERANGE, ENODATA, ENOTTY, ENAMETOOLONG, ESTALE, EINTR,
                           EAGAIN, ENOMEM, ENOSYS, EACCES,       EFAULT,  ENXIO};

// The open calls that the setup makes fail.
constexpr unsigned kFailControl = 1, kFailMountChange = 2, kFailMountPaths = 4;

struct Driver {
  bool ready = false;
  bool resetting = false;  // answers the start-of-input cache reset
  int base_fd = -1;
  dev_t dev = 0;
  ino_t ino = 0;
  unsigned failing_opens = 0;
  Input in;
  std::array<LastReply, kReplyKinds> last;
  std::vector<MountEntry> table;
  size_t table_pos = 0;
  struct mntent ent {};
};

Driver g;

bool is_driver_fd(int fd) {
  struct stat st {};
  return fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == g.dev && st.st_ino == g.ino;
}

// Fills size bytes at buf as the next reply says and returns the result.
int answer(unsigned char *buf, size_t size, Reply kind) {
  if (g.in.empty()) {
    errno = EIO;
    return -1;
  }
  const uint8_t how = g.in.u8();
  int result = 0;
  int error = 0;
  if ((how & 3) == 1) {
    result = -1;
    error = kErrnos[g.in.u8() % std::size(kErrnos)];
  } else if ((how & 3) == 2) {
    result = 1 + g.in.u8();
  }
  if ((how & 3) != 3) {
    const size_t offset = (how & 8) != 0 ? g.in.u16() % size : 0;
    const int fill = (how & 4) != 0 ? g.in.u8() : -1;
    const size_t room = size - offset;
    const size_t copied = g.in.take(buf + offset, g.in.u16(), room);
    if (fill >= 0) memset(buf + offset + copied, fill, room - copied);
  }
  if (kind != kReplyKinds) {
    g.last[kind].valid = true;
    g.last[kind].result = result;
    g.last[kind].bytes.assign(buf, buf + size);
  }
  if (result == -1) errno = error;
  return result;
}

size_t dmig_payload_len(int func, Reply *kind) {
  *kind = kReplyKinds;
  switch (func) {
    case DMIG_PATH_TO_HANDLE:
      *kind = kPathToHandle;
      return KXDMAPI_PATH_TO_HANDLE_LEN;
    case DMIG_GET_EVENTLIST:
      *kind = kEventlist;
      return sizeof(wire::GetEventlist);
    case DMIG_GET_DIR:
      *kind = kGetDir;
      return sizeof(wire::GetDir);
    case DMIG_GETALL_DISP:
      return sizeof(wire::GetallDisp);
    case DMIG_GET_EVENTS:
      return sizeof(wire::GetEvents);
    case DMIG_FIND_EVENTMSG:
      return sizeof(wire::FindEventmsg);
    default:
      return 0;
  }
}

int control_request(void *arg) {
  Dmig frame;
  memcpy(&frame, arg, sizeof frame);
  check(frame.dmig_version == DMIG_VERSION);
  Reply kind;
  const size_t len = dmig_payload_len(frame.dmig_func, &kind);
  if (len == 0 || g.resetting) {
    errno = ENOSYS;
    return -1;
  }
  // The frame must describe exactly the payload the driver writes back.
  check(frame.dmig_bufsize == len && frame.dmig_buf != 0);
  return answer(reinterpret_cast<unsigned char *>(static_cast<uintptr_t>(frame.dmig_buf)), len,
                kind);
}

int driver_request(unsigned long request, void *arg) {
  auto *buf = static_cast<unsigned char *>(arg);
  switch (request) {
    case KXDMAPI_DMIG_IOCTL:
      return control_request(arg);
    case KXDMAPI_IOC_MOUNT_CHANGE:
      if (g.resetting) {
        memset(buf, 0, sizeof(dm_mnt_change_time_t));
        return 0;
      }
      return answer(buf, sizeof(dm_mnt_change_time_t), kReplyKinds);
    case KXDMAPI_IOC_FD_TO_HANDLE:
      return answer(buf, KXDMAPI_PATH_TO_HANDLE_LEN, kFdToHandle);
    case KXDMAPI_IOC_HANDLE_TO_PATH:
      return answer(buf, KXDMAPI_HANDLE_TO_PATH_LEN, kHandleToPath);
    case KXDMAPI_IOC_FS_DATA:
      return answer(buf, KXDMAPI_FS_DATA_LEN, kReplyKinds);
    case KXDMAPI_IOC_GET_DMATTR:
      return answer(buf, kGetDmattrLen, kDmattr);
    case KXDMAPI_IOC_GET_ATTR:
      return answer(buf, kGetAttrLen, kFileattr);
    case KXDMAPI_IOC_GET_EVENTLIST:
      return answer(buf, sizeof(wire::GetEventlist), kEventlist);
    default:
      errno = ENOTTY;
      return -1;
  }
}

bool has_prefix(const char *s, const char *prefix) {
  return strncmp(s, prefix, strlen(prefix)) == 0;
}

// ---------------------------------------------------------------------------
// What the library hands back.

// A caller's buffer of exactly n bytes, so that the sanitizer sees any byte
// written past it; filled with a canary to see what was written.
class Buffer {
 public:
  explicit Buffer(size_t n) : n_(n), p_(static_cast<unsigned char *>(malloc(n != 0 ? n : 1))) {
    if (p_ == nullptr) abort();
    memset(p_, kCanary, n != 0 ? n : 1);
  }
  ~Buffer() { free(p_); }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  unsigned char *data() { return p_; }
  const unsigned char *data() const { return p_; }
  char *chars() { return reinterpret_cast<char *>(p_); }
  size_t size() const { return n_; }
  bool untouched_from(size_t from) const {
    for (size_t i = from; i < n_; ++i)
      if (p_[i] != kCanary) return false;
    return true;
  }
  // Terminated inside the buffer; the length before the terminator.
  size_t terminated_length() const {
    const void *nul = memchr(p_, '\0', n_);
    check(nul != nullptr);
    return static_cast<size_t>(static_cast<const unsigned char *>(nul) - p_);
  }

 private:
  size_t n_;
  unsigned char *p_;
};

void check_failure(int rc) {
  check(rc == -1 && errno != 0);
}

const std::vector<unsigned char> &last(Reply kind) {
  check(g.last[kind].valid);
  return g.last[kind].bytes;
}

// A handle as the operations pass it: the global handle, or bytes in a block
// of exactly their length.
class Handle {
 public:
  Handle() = default;
  Handle(const void *bytes, size_t len) { assign(bytes, len); }
  ~Handle() { free(p_); }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;
  void assign(const void *bytes, size_t len) {
    free(p_);
    p_ = static_cast<unsigned char *>(malloc(len != 0 ? len : 1));
    if (p_ == nullptr) abort();
    if (len != 0) memcpy(p_, bytes, len);
    len_ = len;
    global_ = false;
  }
  void set_global() {
    free(p_);
    p_ = nullptr;
    len_ = DM_GLOBAL_HLEN;
    global_ = true;
  }
  const void *ptr() const { return global_ ? DM_GLOBAL_HANP : p_; }
  size_t len() const { return len_; }
  bool empty() const { return !global_ && p_ == nullptr; }
  void clear() {
    free(p_);
    p_ = nullptr;
    len_ = 0;
    global_ = false;
  }

 private:
  unsigned char *p_ = nullptr;
  size_t len_ = 0;
  bool global_ = false;
};

Handle g_last_handle;  // from the last path-to-handle or descriptor-to-handle

void read_handle(Handle *h) {
  switch (g.in.u8() % 4) {
    case 0:  // the last handle returned, else the global handle
      if (g_last_handle.empty())
        h->set_global();
      else
        h->assign(g_last_handle.ptr(), g_last_handle.len());
      break;
    case 1: {
      const dm_fsid_t fsid = g.in.u64();
      h->assign(&fsid, sizeof fsid);
      break;
    }
    case 2: {
      const dm_fsid_t fsid = g.in.u64();
      const dm_ino_t ino = g.in.u64();
      const dm_igen_t igen = g.in.u32();
      dm_handle_t record;
      const size_t len = dm_make_handle_nocopy(&fsid, &ino, &igen, &record);
      h->assign(&record, len);
      break;
    }
    default: {
      unsigned char bytes[DM_HANDLE_MAX] = {};
      const size_t len = g.in.u8() % (DM_HANDLE_MAX + 1);
      h->assign(bytes, g.in.take(bytes, len, len));
      break;
    }
  }
}

// A returned handle: within DM_HANDLE_MAX, its block as long as it says,
// the reply's bytes; kept for later operations and freed.
void take_handle(int rc, void *hanp, size_t hlen, Reply kind, size_t min_len, size_t max_len) {
  if (rc != 0) {
    check_failure(rc);
    check(hanp == nullptr);
    return;
  }
  check(hanp != nullptr && hlen >= min_len && hlen <= max_len && hlen <= DM_HANDLE_MAX);
  check(memcmp(hanp, last(kind).data(), hlen) == 0);
  g_last_handle.assign(hanp, hlen);
  dm_handle_free(hanp, hlen);
}

void op_path_to_handle() {
  const uint8_t form = g.in.u8();
  const char *path = "/kxfuzz/p";
  void *hanp = reinterpret_cast<void *>(uintptr_t{0x10});  // must be cleared
  size_t hlen = 0;
  errno = 0;
  int rc;
  switch (form % 5) {
    case 0:
      rc = dm_path_to_handle(path, &hanp, &hlen);
      break;
    case 1:
      rc = dm_path_to_handle_client(path, &hanp, &hlen);
      break;
    case 2:
      rc = dm_path_to_handle_client_nf(path, &hanp, &hlen);
      break;
    case 3:
      rc = dm_path_to_handle_flags(path, g.in.u32(), &hanp, &hlen);
      break;
    default:
      rc = dm_path_to_fshandle(path, &hanp, &hlen);
      take_handle(rc, hanp, hlen, kPathToHandle, DM_FSHANDLE_LEN, DM_FSHANDLE_LEN);
      return;
  }
  take_handle(rc, hanp, hlen, kPathToHandle, 10, DM_HANDLE_MAX);
}

void op_fd_to_handle(int fd) {
  void *hanp = reinterpret_cast<void *>(uintptr_t{0x10});
  size_t hlen = 0;
  errno = 0;
  const int rc = dm_fd_to_handle(fd, &hanp, &hlen);
  take_handle(rc, hanp, hlen, kFdToHandle, 10, DM_HANDLE_MAX);
}

// Attribute values: at most DM_ATTR_VALUE_MAX and the caller's buffer,
// nothing copied on failure, and no length beyond what a value can have.
// The library's own E2BIG (after a request that succeeded) gives the length
// needed; the file system's E2BIG is passed on as it is.
void check_dmattr(int rc, const Buffer &buf, size_t rlen) {
  check(rlen <= DM_ATTR_VALUE_MAX);
  if (rc != 0) {
    check_failure(rc);
    if (errno == E2BIG && g.last[kDmattr].valid && g.last[kDmattr].result != -1)
      check(rlen > buf.size());
    check(buf.untouched_from(0));
    return;
  }
  check(rlen <= buf.size());
  check(rlen == 0 || memcmp(buf.data(), last(kDmattr).data() + kDmattrValueOffset, rlen) == 0);
  check(buf.untouched_from(rlen));
}

const dm_attrname_t kBfst = {{'B', 'F', 'S', 'T', 0, 0, 0, 0}};

void op_get_dmattr_fd(int fd) {
  Buffer buf(g.in.u8());
  size_t rlen = 0;
  errno = 0;
  const int rc = dm_get_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &kBfst, buf.size(),
                                  buf.size() != 0 ? buf.data() : nullptr, &rlen);
  check_dmattr(rc, buf, rlen);
}

void op_get_dmattr(const Handle &h) {
  Buffer buf(g.in.u8());
  size_t rlen = 0;
  errno = 0;
  const int rc = dm_get_dmattr(DM_NO_SESSION, h.ptr(), h.len(), DM_NO_TOKEN, &kBfst, buf.size(),
                               buf.size() != 0 ? buf.data() : nullptr, &rlen);
  check_dmattr(rc, buf, rlen);
}

// dm_stat comes back exactly as the file system filled it.
void check_fileattr(int rc, const dm_stat_t &st) {
  if (rc != 0) {
    check_failure(rc);
    return;
  }
  check(memcmp(&st, last(kFileattr).data() + kStatOffset, sizeof st) == 0);
}

void op_get_fileattr_fd(int fd) {
  dm_stat_t st;
  memset(&st, kCanary, sizeof st);
  errno = 0;
  check_fileattr(dm_get_fileattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, g.in.u64(), &st), st);
}

void op_get_fileattr(const Handle &h) {
  dm_stat_t st;
  memset(&st, kCanary, sizeof st);
  errno = 0;
  check_fileattr(dm_get_fileattr(DM_NO_SESSION, h.ptr(), h.len(), DM_NO_TOKEN, g.in.u64(), &st),
                 st);
}

void check_eventlist(int rc, dm_eventset_t set, unsigned nelem) {
  if (rc != 0) {
    check_failure(rc);
    return;
  }
  const auto &reply = last(kEventlist);
  check(set == kxdmapi::get_native<dm_eventset_t>(reply.data(),
                                                   offsetof(wire::GetEventlist, eventset)));
  check(nelem ==
        kxdmapi::get_native<uint32_t>(reply.data(), offsetof(wire::GetEventlist, nelem)));
}

void op_get_eventlist_fd(int fd) {
  dm_eventset_t set = 0;
  unsigned nelem = 0;
  errno = 0;
  const int rc = dm_get_eventlist_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, g.in.u8(), &set, &nelem);
  check_eventlist(rc, set, nelem);
}

void op_get_eventlist(const Handle &h) {
  dm_eventset_t set = 0;
  unsigned nelem = 0;
  errno = 0;
  const int rc =
      dm_get_eventlist(DM_NO_SESSION, h.ptr(), h.len(), DM_NO_TOKEN, g.in.u8(), &set, &nelem);
  check_eventlist(rc, set, nelem);
}

void op_report_mnt_cache() {
  int count = -1;
  dm_mnt_cache_t *report = dm_report_mnt_cache(&count);
  if (report == nullptr) {
    check(count == 0);
    return;
  }
  check(count >= 0 && static_cast<size_t>(count) <= g.table.size());
  for (int i = 0; i < count; ++i) {
    check(report[i].cached_mnt != nullptr);
    check(strlen(report[i].cached_mnt) <= DM_PATH_MAX);
    check(has_prefix(report[i].cached_mnt, kMountPrefix));
    free(report[i].cached_mnt);
  }
  free(report);
}

// The path is the mount point joined with the reply's path, all of it,
// terminated inside the caller's buffer and within the length reported;
// a buffer too short for it is left alone.
void op_handle_to_path() {
  const uint8_t flags = g.in.u8();
  Handle dir;
  if ((flags & 1) != 0) read_handle(&dir);
  Handle targ;
  read_handle(&targ);
  Buffer buf(g.in.u16() % 4097);
  size_t rlen = 0;
  errno = 0;
  const int rc = dm_handle_to_path((flags & 1) != 0 ? dir.ptr() : nullptr, dir.len(), targ.ptr(),
                                   targ.len(), buf.size(), buf.chars(), &rlen);
  if (rc != 0) {
    check_failure(rc);
    // The library's own ERANGE, not the file system's passed on.
    if (errno == ERANGE && g.last[kHandleToPath].valid && g.last[kHandleToPath].result != -1)
      check(rlen > buf.size() && buf.untouched_from(0));
    return;
  }
  const size_t n = buf.terminated_length();
  check(n + 1 <= rlen && rlen <= buf.size());
  check(has_prefix(buf.chars(), kMountPrefix));
  const auto &reply = last(kHandleToPath);
  const char *relative = reinterpret_cast<const char *>(reply.data() + kH2pPathOffset);
  const size_t rellen = strnlen(relative, kH2pPathRoom);
  check(n >= rellen && memcmp(buf.chars() + n - rellen, relative, rellen) == 0);
}

void op_filesystem(const Handle &h) {
  Buffer fsname(DM_PATH_BUFSIZE);
  Buffer mntpnt(DM_PATH_BUFSIZE);
  errno = 0;
  const int rc = dm_fshandle_to_filesystem(h.ptr(), h.len(), fsname.chars(), mntpnt.chars());
  if (rc != 0) {
    check_failure(rc);
  } else {
    fsname.terminated_length();
    mntpnt.terminated_length();
    check(has_prefix(mntpnt.chars(), kMountPrefix));
  }
  const int tracking = dm_fs_rename_tracking_enabled(h.ptr(), h.len());
  check(tracking >= -1 && tracking <= 1);
}

void op_special_path(const Handle &h, bool with_mount) {
  Buffer mntpnt(DM_PATH_BUFSIZE);
  Buffer path(DM_PATH_BUFSIZE);
  uint64_t key = 0;
  errno = 0;
  const int rc = dm_format_special_path(h.ptr(), h.len(), &key,
                                        with_mount ? mntpnt.chars() : nullptr, path.chars());
  if (rc != 0) {
    check_failure(rc);
    return;
  }
  path.terminated_length();
  if (with_mount) check(mntpnt.terminated_length() <= DM_PATH_MAX);
}

void op_get_dir() {
  Buffer path(DM_GET_DIR_PATH_MAX);
  errno = 0;
  const int rc = dm_get_dir(g.in.u64(), 1, path.chars());
  if (rc != 0) {
    check_failure(rc);
    return;
  }
  const size_t n = path.terminated_length();
  const auto &reply = last(kGetDir);
  check(memcmp(path.data(), reply.data() + offsetof(wire::GetDir, path), n) == 0);
}

// Event messages and dispositions: a successful reply fits the caller's
// buffer.
void op_event_messages() {
  const uint8_t which = g.in.u8();
  Buffer buf(g.in.u16());
  size_t rlen = 0;
  errno = 0;
  int rc;
  switch (which % 3) {
    case 0:
      rc = dm_getall_disp(1, buf.size(), buf.data(), &rlen);
      break;
    case 1:
      rc = dm_get_events(1, 1, 0, buf.size(), buf.data(), &rlen);
      break;
    default:
      rc = dm_find_eventmsg(1, 7, buf.size(), buf.data(), &rlen);
      break;
  }
  if (rc != 0) {
    check_failure(rc);
    return;
  }
  check(rlen <= buf.size());
}

void op_change_time() {
  const int stale = dm_check_mnt_cache_stale();
  check(stale >= -1 && stale <= 1);
}

void run_operation(int fd) {
  for (LastReply &r : g.last) r.valid = false;  // each check sees its own call's
  Handle h;
  switch (g.in.u8() % 16) {
    case 0:
      op_path_to_handle();
      break;
    case 1:
      op_fd_to_handle(fd);
      break;
    case 2:
      op_get_dmattr_fd(fd);
      break;
    case 3:
      op_get_fileattr_fd(fd);
      break;
    case 4:
      op_get_eventlist_fd(fd);
      break;
    case 5:
      read_handle(&h);
      op_get_eventlist(h);
      break;
    case 6:
      op_change_time();
      break;
    case 7:
      op_report_mnt_cache();
      break;
    case 8:
      op_handle_to_path();
      break;
    case 9:
      read_handle(&h);
      op_filesystem(h);
      break;
    case 10:
      read_handle(&h);
      op_get_dmattr(h);
      break;
    case 11:
      read_handle(&h);
      op_get_fileattr(h);
      break;
    case 12:
      op_get_dir();
      break;
    case 13:
      op_event_messages();
      break;
    case 14:
      dm_release_dmfd();
      break;
    default: {
      const bool with_mount = (g.in.u8() & 1) != 0;
      read_handle(&h);
      op_special_path(h, with_mount);
      break;
    }
  }
}

// ---------------------------------------------------------------------------
// Per-input set-up: the mount table, the channel, an empty mount cache.

void read_table(unsigned entries) {
  g.table.clear();
  for (unsigned i = 0; i < entries; ++i) {
    MountEntry e;
    const uint8_t kind = g.in.u8();
    e.kxfs = (kind & 1) != 0;
    e.has_source = (kind & 2) == 0;
    e.dir = kMountPrefix + g.in.text(g.in.u8());
    if ((kind & 4) != 0) e.dir.append(std::min<size_t>(g.in.u16(), kLongestExtra), 'x');
    e.source = g.in.text(g.in.u8());
    g.table.push_back(std::move(e));
  }
}

// The channel opened or closed as the input says, and a mount cache that
// holds nothing, whatever the last input left: every input starts alike.
void reset_library(bool channel_open) {
  __atomic_store_n(&kxdmapi_dmfd_keep, 1, __ATOMIC_RELAXED);
  pthread_mutex_lock(&kxdmapi_dmfd_lock);
  const int fd = __atomic_load_n(&kxdmapi_dmfd, __ATOMIC_ACQUIRE);
  if (channel_open && fd < 0) {
    __atomic_store_n(&kxdmapi_dmfd, fcntl(g.base_fd, F_DUPFD_CLOEXEC, 0), __ATOMIC_RELEASE);
  } else if (!channel_open && fd >= 0) {
    close(fd);
    __atomic_store_n(&kxdmapi_dmfd, -1, __ATOMIC_RELEASE);
  }
  pthread_mutex_unlock(&kxdmapi_dmfd_lock);

  g.resetting = true;
  pthread_mutex_lock(&dm_mount_cache_lock);
  saved_change_time.mct_sec = 1;  // the reset's reply is 0/0: a change
  dm_build_mnt_cache();
  pthread_mutex_unlock(&dm_mount_cache_lock);
  g.resetting = false;
  for (LastReply &r : g.last) r.valid = false;
  g_last_handle.clear();
}

}  // namespace

// ---------------------------------------------------------------------------
// The entry points of driver_replies_libc.c.

extern "C" int fake_driver_ioctl(int fd, unsigned long request, void *arg, int *result) {
  if (!g.ready || !is_driver_fd(fd)) return 0;
  const int saved = errno;
  *result = driver_request(request, arg);
  if (*result != -1) errno = saved;
  return 1;
}

extern "C" int fake_driver_open(const char *path, int flags, int *fd) {
  if (!g.ready) return 0;
  if (strcmp(path, kTraceFile) == 0) {
    *fd = open("/dev/null", flags);
    return 1;
  }
  unsigned which;
  if (strcmp(path, KXDMAPI_CONTROL_DEVICE) == 0)
    which = kFailControl;
  else if (strcmp(path, KXDMAPI_MOUNT_CHANGE_DEVICE) == 0)
    which = kFailMountChange;
  else if (has_prefix(path, kMountPrefix))
    which = kFailMountPaths;
  else
    return 0;
  if (!g.resetting && (g.failing_opens & which) != 0) {
    *fd = -1;
    errno = which == kFailMountPaths ? EACCES : ENOENT;
    return 1;
  }
  *fd = fcntl(g.base_fd, (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD, 0);
  return 1;
}

extern "C" FILE *fake_driver_setmntent(const char *file, const char *) {
  if (!g.ready || strcmp(file, "/proc/mounts") != 0) {
    errno = ENOENT;
    return nullptr;
  }
  g.table_pos = 0;
  // Never read as a stream: only getmntent and endmntent see it.
  return reinterpret_cast<FILE *>(&g.table_pos);
}

extern "C" struct mntent *fake_driver_getmntent(FILE *stream) {
  if (stream != reinterpret_cast<FILE *>(&g.table_pos) || g.resetting ||
      g.table_pos >= g.table.size())
    return nullptr;
  MountEntry &e = g.table[g.table_pos++];
  static char kxfs[] = "kxfs";
  static char other[] = "ext4";
  static char opts[] = "rw";
  g.ent.mnt_fsname = e.has_source ? e.source.data() : nullptr;
  g.ent.mnt_dir = e.dir.data();
  g.ent.mnt_type = e.kxfs ? kxfs : other;
  g.ent.mnt_opts = opts;
  g.ent.mnt_freq = 0;
  g.ent.mnt_passno = 0;
  return &g.ent;
}

extern "C" int fake_driver_endmntent(FILE *) {
  g.table_pos = 0;
  return 1;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  g.base_fd = memfd_create("kxfuzz-driver", MFD_CLOEXEC);
  struct stat st {};
  if (g.base_fd < 0 || fstat(g.base_fd, &st) != 0) abort();
  g.dev = st.st_dev;
  g.ino = st.st_ino;
  setenv("KXFSLOGS", kTraceRoot, 1);  // before the library resolves its directories
  g.ready = true;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  g.in.reset(data, size);
  const uint8_t setup = g.in.u8();
  g.failing_opens = (setup >> 3) & 7u;
  read_table(setup & 3u);
  reset_library((setup & 4) != 0);
  const int fd = fcntl(g.base_fd, F_DUPFD_CLOEXEC, 0);
  for (int i = 0; i < kMaxOperations && !g.in.empty(); ++i) run_operation(fd);
  close(fd);
  return 0;
}
