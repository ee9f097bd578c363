// Object-storage steering: `S1:S2:...:Sn:NS0|NS1|...|NSn` sends files up to
// size S1 to NS0, up to S2 to NS1, ..., and larger files to NSn. A value
// without a ':' is one plain namespace and leaves the table empty.
#include <cstring>
#include <memory>
#include <string_view>

#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/parse/policy_parse_internal.h"

namespace {

using OwnedText = std::unique_ptr<char, vdpol::FreeDeleter>;

// One bound in the size syntax (k/m/g suffixes), with nothing after it.
bool parse_bound(std::string_view text, uint64_t *out) {
  char buf[vdpol::kValueBufSize];
  if (text.size() >= sizeof buf) return false;
  std::memcpy(buf, text.data(), text.size());
  buf[text.size()] = '\0';
  const char *cursor = buf;
  const char *reason = "";
  return parse_number(&cursor, out, &reason) == 1 && *cursor == '\0';
}

std::size_t count_of(std::string_view text, char c) {
  std::size_t n = 0;
  for (char ch : text) n += ch == c ? 1 : 0;
  return n;
}

}  // namespace

namespace vdpol {

bool set_steering(ParseContext &ctx, std::string_view value) {
  PolicyConfig_t *p = ctx.policy;
  const std::size_t nbounds = count_of(value, ':');
  if (nbounds == 0) {
    free_steer_entries(p);  // a plain namespace replaces an inherited table
    return true;
  }
  if (nbounds > VDP_MAX_STEER_BOUNDS) {
    fail(ctx, "Too many steering entries %d defined, max %d is allowed.\n",
         static_cast<int>(nbounds), VDP_MAX_STEER_BOUNDS);
    return false;
  }
  uint64_t bounds[VDP_MAX_STEER_BOUNDS] = {};
  std::string_view rest = value;
  for (std::size_t i = 0; i < nbounds; ++i) {
    std::size_t colon = rest.find(':');
    std::string_view text = rest.substr(0, colon);
    rest.remove_prefix(colon + 1);
    if (!parse_bound(text, &bounds[i])) {
      fail(ctx, "faild to parse steering namespaces: %.*s\n", static_cast<int>(text.size()),
           text.data());
      return false;
    }
    if (i > 0 && bounds[i] <= bounds[i - 1]) {
      fail(ctx, "OBJS steering file size should be in increasing order.\n");
      return false;
    }
  }
  // rest holds the namespaces; fewer than nbounds + 1 leave the last
  // entries without one.
  const std::size_t nentries = nbounds + 1;
  if (count_of(rest, '|') + 1 > nentries) {
    fail(ctx,
         "OBJS steering namespaces doesn't match the number of steering file size "
         "ranges.\n");
    return false;
  }
  OwnedText names[VDP_MAX_STEER_ENTRIES];
  for (std::size_t i = 0;; ++i) {
    std::size_t bar = rest.find('|');
    names[i].reset(dup_text(rest.substr(0, bar)));
    if (!names[i]) {
      fail(ctx, "memory allocation failure");
      return false;
    }
    if (bar == std::string_view::npos) break;
    rest.remove_prefix(bar + 1);
  }
  free_steer_entries(p);
  for (std::size_t i = 0; i < nentries; ++i) {
    p->polcfg_cloud_steer_entries[i].file_size = i < nbounds ? bounds[i] : 0;
    p->polcfg_cloud_steer_entries[i].container = names[i].release();
  }
  p->polcfg_cloud_steer_cnt = static_cast<int>(nentries);
  return true;
}

}  // namespace vdpol
