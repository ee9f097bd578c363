// Requests on descriptors of the simulated file system's files: dispatch,
// file attributes, handles and file-system data.
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/core/handle.h"
#include "kxsim/core/hex.h"
#include "kxsim/core/sysio.h"
#include "kxsim/preload/driver/driver.h"

namespace kxsim {

namespace {
// dm_get_attr_t: session 0, token 4, mask 8, dm_stat 16 (168 bytes).
constexpr std::size_t kStatAt = 16;
constexpr std::size_t kStatSize = 168;
// dm_stat fields.
constexpr std::size_t kStNevents = 32, kStEmask = 40, kStDev = 48, kStIno = 56, kStGen = 64,
                      kStMode = 72, kStNlink = 80, kStUid = 88, kStGid = 96, kStRdev = 104,
                      kStSize = 112, kStAtime = 120, kStMtime = 128, kStCtime = 136,
                      kStBlksize = 144, kStFlags = 148, kStAffinity = 152, kStBlocks = 160;
constexpr std::int32_t kDmEventMax = 40;

// Path-to-handle / descriptor-to-handle payload: handle at 0 (64 bytes).
constexpr std::size_t kHandleArea = 64;
// Handle-to-path buffer.
constexpr std::size_t kH2pTarget = 72, kH2pTargetLen = 136, kH2pPath = 144, kH2pPathMax = 1024;

// Device numbers as stat reports them.
std::uint64_t makedev64(std::uint32_t major, std::uint32_t minor) {
  return makedev(major, minor);
}

void encode_dm_stat(unsigned char *s, const Identity &id, std::uint64_t emask) {
  const struct statx &x = id.stx;
  std::memset(s, 0, kStatSize);
  store<std::int32_t>(s, kStNevents, kDmEventMax);
  store<std::uint64_t>(s, kStEmask, emask);
  store<std::uint64_t>(s, kStDev, makedev64(x.stx_dev_major, x.stx_dev_minor));
  store<std::uint64_t>(s, kStIno, x.stx_ino);
  store<std::uint32_t>(s, kStGen, id.generation);
  store<std::uint64_t>(s, kStMode, x.stx_mode);
  store<std::uint64_t>(s, kStNlink, x.stx_nlink);
  store<std::uint64_t>(s, kStUid, x.stx_uid);
  store<std::uint64_t>(s, kStGid, x.stx_gid);
  store<std::uint64_t>(s, kStRdev, makedev64(x.stx_rdev_major, x.stx_rdev_minor));
  store<std::int64_t>(s, kStSize, static_cast<std::int64_t>(x.stx_size));
  store<std::int64_t>(s, kStAtime, x.stx_atime.tv_sec);
  store<std::int64_t>(s, kStMtime, x.stx_mtime.tv_sec);
  store<std::int64_t>(s, kStCtime, x.stx_ctime.tv_sec);
  store<std::uint32_t>(s, kStBlksize, x.stx_blksize);
  store<std::uint32_t>(s, kStFlags, 0);
  store<std::uint64_t>(s, kStAffinity, 0);
  store<std::uint64_t>(s, kStBlocks, x.stx_blocks);
}

std::string relative_path_of(const FileTarget &t) {
  return std::string(relative_to(t.path, t.mount.dir));
}

// Fills info.name from the payload before the fault rules see the request.
void describe(unsigned long request, const unsigned char *p, RequestInfo &info) {
  switch (request) {
    case req::kGetDmattr:
    case req::kSetDmattr:
    case req::kRemoveDmattr:
      info.name = dmattr_name(p);
      break;
    case req::kSetExtRep:
    case req::kGetExtRep:
    case req::kRemoveExtRep:
      info.name = extrep_name(p);
      break;
    default:
      break;
  }
}

int dispatch(Simulator &sim, const FileTarget &t, unsigned long request, unsigned char *p,
             RequestInfo &info) {
  switch (request) {
    case req::kGetEventList:
      return op_file_get_eventlist(sim, t, p, info);
    case req::kSetEventList:
      return op_file_set_eventlist(sim, t, p, info);
    case req::kUpdateEventList:
      return op_file_update_eventlist(sim, t, p, info);
    case req::kGetAttr:
      return op_get_attr(sim, t, p);
    case req::kSetAttr:
      return 0;  // accepted; the simulator changes no file attribute
    case req::kGetDmattr:
      return op_get_dmattr(sim, t, p);
    case req::kSetDmattr:
      return op_set_dmattr(sim, t, p, info);
    case req::kRemoveDmattr:
      return op_remove_dmattr(sim, t, p);
    case req::kFdToHandle:
      return op_fd_to_handle(sim, t, p);
    case req::kHandleToPath:
      return op_handle_to_path(sim, t, p, info);
    case req::kFsData:
      return op_fs_data(t, p);
    case req::kSetExtRep:
      return op_set_extrep(sim, t, p, info);
    case req::kGetExtRep:
      return op_get_extrep(sim, t, p, info);
    case req::kRemoveExtRep:
      return op_remove_extrep(sim, t, p, info);
    case req::kSetIngestParam:
    case req::kSetFenceposts:
    case req::kBulkLink:
      return 0;  // accepted, nothing kept
    default:
      return ENOSYS;  // the no-open forms
  }
}
}  // namespace

bool is_file_request(unsigned long request) {
  switch (request) {
    case req::kGetEventList:
    case req::kSetEventList:
    case req::kGetAttr:
    case req::kGetDmattr:
    case req::kSetDmattr:
    case req::kFdToHandle:
    case req::kHandleToPath:
    case req::kRemoveDmattr:
    case req::kSetAttr:
    case req::kUpdateEventList:
    case req::kGetFilestatNoOpen:
    case req::kGetAttrNoOpen:
    case req::kFsData:
    case req::kSetExtRep:
    case req::kGetExtRep:
    case req::kRemoveExtRep:
    case req::kSetIngestParam:
    case req::kSetFenceposts:
    case req::kBulkLink:
      return true;
    default:
      return false;
  }
}

// A file deeper than the kernel names has no path to place it by: it is
// the mount's when only one simulated mount lives on its device (a driver
// knows its objects without any path). Its path in the request log and in
// fault rules is "<mount>/...".
const Mount *mount_of_deep_file(Simulator &sim, int fd, std::string &path) {
  Identity id;
  if (!identify_fd(fd, id)) return nullptr;
  const Mount *m = sim.config().find_by_device(makedev(id.stx.stx_dev_major, id.stx.stx_dev_minor));
  if (m != nullptr) path = m->dir + "/...";
  return m;
}

FdObject look_up_fd(int fd) {
  FdObject object;
  object.path = sys::fd_path(fd);
  if (object.path.empty()) object.path_errno = errno;
  if (!identify_fd(fd, object.id)) object.id_errno = errno;
  return object;
}

std::optional<int> file_ioctl(Simulator &sim, int fd, unsigned long request, void *arg,
                              const FdObject &object) {
  if (!sim.refresh()) return std::nullopt;
  std::string path = object.path;
  const Mount *m = path.empty() || path[0] != '/' ? nullptr : sim.config().find_by_path(path);
  if (path.empty() && object.path_errno == ENAMETOOLONG) m = mount_of_deep_file(sim, fd, path);
  if (!m) return std::nullopt;
  RequestInfo info;
  info.kind = Kind::kIoctl;
  info.code = request;
  info.object = path;
  auto *p = static_cast<unsigned char *>(arg);
  if (!p) return sim.finish(info, -1, EFAULT);
  describe(request, p, info);
  if (int e = sim.injected(info)) return sim.finish(info, -1, e);
  FileTarget t{*m, path, object.id};
  if (object.id_errno != 0) return sim.finish(info, -1, object.id_errno);
  // An object of a file system mounted inside the simulated one is not the
  // driver's: the request goes to that file system, which refuses it.
  if (!on_device(t.id, m->dev)) return std::nullopt;
  int e = dispatch(sim, t, request, p, info);
  return sim.finish(info, 0, e);
}

int load_state(Simulator &sim, const FileTarget &t, ObjectState &st) {
  if (!sim.store().load(t.mount.fsid, t.id.ino, t.id.born, st)) {
    trace("state of %s: %s", t.path.c_str(), sim.store().last_error().c_str());
    return errno ? errno : EIO;
  }
  return 0;
}

int save_state(Simulator &sim, const FileTarget &t, const ObjectState &st) {
  ObjectState copy = st;
  copy.born = t.id.born;
  return sim.store().save(t.mount.fsid, t.id.ino, copy) ? 0 : (errno ? errno : EIO);
}

int op_get_attr(Simulator &sim, const FileTarget &t, unsigned char *p) {
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  encode_dm_stat(p + kStatAt, t.id, st.events);
  return 0;
}

int op_fd_to_handle(Simulator &sim, const FileTarget &t, unsigned char *p) {
  std::memset(p, 0, kHandleArea);
  make_file_handle(p, t.mount.fsid, t.id.ino, t.id.generation);
  sim.index().note(t.mount, t.id.ino, relative_path_of(t));
  return 0;
}

int resolve_file_handle(Simulator &sim, const Mount &m, const HandleFields &h, std::string &abs) {
  if (h.is_fs_handle || h.fsid != m.fsid) return EINVAL;
  if (h.names_root) {
    abs = m.dir;
    return 0;
  }
  Identity id;
  auto rel = sim.index().lookup(m, h.ino, id);
  if (!rel) return ENOENT;
  abs = rel->empty() ? m.dir : m.dir + "/" + *rel;
  if (h.generation != 0 && h.generation != id.generation) return ESTALE;
  return 0;
}

int op_handle_to_path(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info) {
  auto len = load<std::uint64_t>(p, kH2pTargetLen);
  if (len > kMaxHandleLen) return EINVAL;
  info.add("handle", to_hex(p + kH2pTarget, static_cast<std::size_t>(len)));
  auto h = crack_handle(p + kH2pTarget, static_cast<std::size_t>(len));
  if (!h) return EINVAL;
  std::string abs;
  if (int e = resolve_file_handle(sim, t.mount, *h, abs)) return e;
  std::string_view rel = relative_to(abs, t.mount.dir);
  if (rel.size() >= kH2pPathMax) return ENAMETOOLONG;
  std::memcpy(p + kH2pPath, rel.data(), rel.size());
  p[kH2pPath + rel.size()] = 0;
  return 0;
}

int op_fs_data(const FileTarget &t, unsigned char *p) {
  std::memset(p, 0, 64);
  store<std::uint64_t>(p, 0, t.mount.rename_tracking ? 0x100 : 0);
  return 0;
}

}  // namespace kxsim
