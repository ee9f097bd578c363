// Event lists of files (ioctl 1034, 1035, 1062) and of file systems (driver
// requests 9, 10, 40). Only event types below maxevent are considered, and
// never more than DM_EVENT_MAX (40): the driver ignores the bits above.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/core/hex.h"
#include "kxsim/preload/driver/driver.h"

namespace kxsim {

namespace {
constexpr std::int32_t kDmEventMax = 40;
// Get (96 bytes): handle 0, session 64, token 68, handle length 72,
// nelem 76 (in/out), fsid 80, event set 88 (out).
constexpr std::size_t kGetNelem = 76, kGetFsid = 80, kGetSet = 88;
// Set (32 bytes) and update (40 bytes): maxevent 8, fsid 16, set 24, clear 32.
constexpr std::size_t kMaxevent = 8, kFsid = 16, kSet = 24, kClear = 32;

std::uint64_t considered(std::int32_t maxevent) {
  std::int32_t n = std::min(maxevent, kDmEventMax);
  return n <= 0 ? 0 : (std::uint64_t{1} << n) - 1;
}

// The three event-list operations on a mask; 0 or an errno.
int get_events(std::uint64_t events, unsigned char *p, RequestInfo &info) {
  auto nelem = load<std::int32_t>(p, kGetNelem);
  if (nelem < 0) return EINVAL;
  std::int32_t n = std::min(nelem, kDmEventMax);
  std::uint64_t out = events & considered(n);
  store<std::int32_t>(p, kGetNelem, n);
  store<std::uint64_t>(p, kGetSet, out);
  info.add("mask", hex_number(out));
  return 0;
}

int set_events(std::uint64_t &events, const unsigned char *p, RequestInfo &info) {
  auto maxevent = load<std::int32_t>(p, kMaxevent);
  auto set = load<std::uint64_t>(p, kSet);
  info.add("maxevent", std::to_string(maxevent));
  info.add("mask", hex_number(set));
  if (maxevent < 0) return EINVAL;
  std::uint64_t m = considered(maxevent);
  events = (events & ~m) | (set & m);
  return 0;
}

int update_events(std::uint64_t &events, const unsigned char *p, RequestInfo &info) {
  auto maxevent = load<std::int32_t>(p, kMaxevent);
  auto set = load<std::uint64_t>(p, kSet);
  auto clear = load<std::uint64_t>(p, kClear);
  info.add("maxevent", std::to_string(maxevent));
  info.add("set", hex_number(set));
  info.add("mask", hex_number(clear));
  if (maxevent < 0) return EINVAL;
  std::uint64_t m = considered(maxevent);
  events = (events & ~(clear & m)) | (set & m);
  return 0;
}

// File-system forms: the mount named by the fsid at `at`.
const Mount *fs_target(Simulator &sim, const unsigned char *p, std::size_t at, RequestInfo &info) {
  auto fsid = load<std::uint64_t>(p, at);
  const Mount *m = sim.config().find_by_fsid(fsid);
  info.object = m ? m->dir : "-";
  info.add("fsid", hex_number(fsid));
  return m;
}

using MaskOp = int (*)(std::uint64_t &, const unsigned char *, RequestInfo &);

int change_file(Simulator &sim, const FileTarget &t, const unsigned char *p, RequestInfo &info,
                MaskOp op) {
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  const std::uint64_t before = st.events;
  if (int e = op(st.events, p, info)) return e;
  // A change that changes nothing is not written, as a driver would not
  // dirty an inode for it.
  return st.events == before ? 0 : save_state(sim, t, st);
}

int change_fs(Simulator &sim, unsigned char *p, RequestInfo &info, MaskOp op) {
  const Mount *m = fs_target(sim, p, kFsid, info);
  if (int e = sim.injected(info)) return e;
  if (!m) return EINVAL;
  ObjectState st;
  if (!sim.store().load_fs(m->fsid, st)) return EIO;
  if (int e = op(st.events, p, info)) return e;
  return sim.store().save_fs(m->fsid, st) ? 0 : EIO;
}
}  // namespace

int op_file_get_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p,
                          RequestInfo &info) {
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  return get_events(st.events, p, info);
}

int op_file_set_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p,
                          RequestInfo &info) {
  return change_file(sim, t, p, info, set_events);
}

int op_file_update_eventlist(Simulator &sim, const FileTarget &t, unsigned char *p,
                             RequestInfo &info) {
  return change_file(sim, t, p, info, update_events);
}

int op_fs_get_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info) {
  const Mount *m = fs_target(sim, p, kGetFsid, info);
  if (int e = sim.injected(info)) return e;
  if (!m) return EINVAL;
  ObjectState st;
  if (!sim.store().load_fs(m->fsid, st)) return EIO;
  return get_events(st.events, p, info);
}

int op_fs_set_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info) {
  return change_fs(sim, p, info, set_events);
}

int op_fs_update_eventlist(Simulator &sim, unsigned char *p, RequestInfo &info) {
  return change_fs(sim, p, info, update_events);
}

}  // namespace kxsim
