// Data-management attributes (requests 1038, 1039, 1058).
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "kxsim/core/bytes.h"
#include "kxsim/preload/driver/driver.h"

namespace kxsim {

namespace {
// dm_get_dmattr_t (160 bytes): buflen 12 (u32, in: caller's buffer, out:
// value length), name 24 (8), data 32 (128).
constexpr std::size_t kGetBuflen = 12, kName = 24, kData = 32;
// dm_set_dmattr_t (160 bytes): setdtime 12 (u16), buflen 14 (u16), name 24,
// data 32.
constexpr std::size_t kSetBuflen = 14;

// The name is up to 8 bytes, NUL-padded; empty or unprintable names are
// refused (they could not be kept in the state file anyway).
bool read_name(const unsigned char *p, std::string &name) {
  name = dmattr_name(p);
  return valid_state_name(name, kMaxAttrName);
}
}  // namespace

std::string dmattr_name(const unsigned char *p) {
  const char *n = reinterpret_cast<const char *>(p + kName);
  return std::string(n, strnlen(n, kMaxAttrName));
}

int op_get_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p) {
  std::string name;
  if (!read_name(p, name)) return EINVAL;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  auto it = st.attrs.find(name);
  if (it == st.attrs.end()) return ENODATA;
  const Bytes &v = it->second;
  auto buflen = load<std::uint32_t>(p, kGetBuflen);
  // The caller learns the value's length; the value itself is copied only as
  // far as its buffer reaches (the client reports E2BIG when it was short).
  std::size_t n = std::min<std::size_t>({v.size(), buflen, kMaxAttrValue});
  std::memset(p + kData, 0, kMaxAttrValue);
  if (n) std::memcpy(p + kData, v.data(), n);
  store<std::uint32_t>(p, kGetBuflen, static_cast<std::uint32_t>(v.size()));
  return 0;
}

int op_set_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p, RequestInfo &info) {
  std::string name;
  if (!read_name(p, name)) return EINVAL;
  auto len = load<std::uint16_t>(p, kSetBuflen);
  info.add("len", std::to_string(len));
  if (len > kMaxAttrValue) return E2BIG;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  st.attrs[name] = Bytes(p + kData, p + kData + len);
  return save_state(sim, t, st);
}

int op_remove_dmattr(Simulator &sim, const FileTarget &t, unsigned char *p) {
  std::string name;
  if (!read_name(p, name)) return EINVAL;
  ObjectState st;
  if (int e = load_state(sim, t, st)) return e;
  if (st.attrs.erase(name) == 0) return ENODATA;
  return save_state(sim, t, st);
}

}  // namespace kxsim
