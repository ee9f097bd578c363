// External representations (requests 0xD31 set, 0xD32 get, 0xD33 remove),
// kept per file by key name. The offset and length of the range a
// representation covers are stored and shown, but a key names one
// representation whatever its range.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/core/hex.h"
#include "kxsim/preload/driver/driver.h"

namespace kxsim {

namespace {
// ExternalRepSet_t (96 bytes).
constexpr std::size_t kEntryFlags = 0, kOffset = 8, kLength = 16, kKeyname = 24, kKeynameSize = 32,
                      kFieldlen = 56, kDatalen = 60, kDataoffset = 64, kData = 72, kOpFlags = 80;

bool read_key(const unsigned char *p, std::string &key) {
  const char *k = reinterpret_cast<const char *>(p + kKeyname);
  std::size_t n = strnlen(k, kKeynameSize);
  if (n == kKeynameSize) return false;  // not terminated within the field
  key.assign(k, n);
  return valid_state_name(key, kMaxRepName);
}

unsigned char *user_buffer(const unsigned char *p) {
  // The frame carries the caller's address as a number, as the driver sees it.
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  return reinterpret_cast<unsigned char *>(
      static_cast<std::uintptr_t>(load<std::uint64_t>(p, kData)));
}

void describe(const unsigned char *p, RequestInfo &info) {
  info.add("op_flags", std::to_string(load<std::uint32_t>(p, kOpFlags)));
  info.add("offset", std::to_string(load<std::uint64_t>(p, kOffset)));
}
}  // namespace

std::string extrep_name(const unsigned char *p) {
  const char *k = reinterpret_cast<const char *>(p + kKeyname);
  return std::string(k, strnlen(k, kKeynameSize));
}

int op_set_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info) {
  describe(p, info);
  std::string key;
  if (!read_key(p, key)) return EINVAL;
  auto len = load<std::uint32_t>(p, kDatalen);
  auto at = load<std::uint64_t>(p, kDataoffset);
  info.add("len", std::to_string(len));
  if (at > kMaxRepValue || len > kMaxRepValue - at) return E2BIG;
  const unsigned char *data = user_buffer(p);
  if (len && !data) return EFAULT;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  ExtRep &rep = st.reps[key];
  rep.entry_flags = load<std::uint32_t>(p, kEntryFlags);
  rep.offset = load<std::uint64_t>(p, kOffset);
  rep.length = load<std::uint64_t>(p, kLength);
  // A data offset writes into the stored value; without one it replaces it.
  if (at == 0) rep.value.clear();
  rep.value.resize(std::max<std::size_t>(rep.value.size(), at + len));
  if (len) std::memcpy(rep.value.data() + at, data, len);
  return save_state(sim, t, st);
}

int op_get_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info) {
  describe(p, info);
  std::string key;
  if (!read_key(p, key)) return EINVAL;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  auto it = st.reps.find(key);
  if (it == st.reps.end()) return ENOENT;
  const Bytes &v = it->second.value;
  auto want = load<std::uint32_t>(p, kDatalen);
  auto at = load<std::uint64_t>(p, kDataoffset);
  std::size_t avail = at < v.size() ? v.size() - at : 0;
  std::size_t n = std::min<std::size_t>(avail, want);
  unsigned char *data = user_buffer(p);
  if (n && !data) return EFAULT;
  if (n) std::memcpy(data, v.data() + at, n);
  store<std::uint32_t>(p, kFieldlen, static_cast<std::uint32_t>(v.size()));
  store<std::uint32_t>(p, kDatalen, static_cast<std::uint32_t>(n));
  info.add("len", std::to_string(v.size()));
  return 0;
}

int op_remove_extrep(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info) {
  describe(p, info);
  std::string key;
  if (!read_key(p, key)) return EINVAL;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  if (st.reps.erase(key) == 0) return ENOENT;
  return save_state(sim, t, st);
}

}  // namespace kxsim
