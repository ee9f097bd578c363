// Storing one option's value in a PolicyConfig_t: the generic stores driven
// by the keyword's type, field and bits (policy_keywords.h), and the
// keywords whose values need more than a copy (name, key, root, affinity,
// blackout windows, rep_input, rep_realize).
#include <cstring>
#include <iterator>
#include <string_view>

#include "kxdmapi/kxdmapi_paths.h"
#include "vdpolicy/lib/config/policy_keywords.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/parse/policy_parse_internal.h"

namespace {

using vdpol::Applied;
using vdpol::fail;
using vdpol::field_of;
using vdpol::Keyword;
using vdpol::ParseContext;

constexpr std::size_t kMaxNameLen = 31;
constexpr std::size_t kAffinityLen = 8;
constexpr std::string_view kHandleDir = "/" KXDMAPI_HANDLE_PREFIX;

// rep_input's choice groups, in the order of the row's list; together they
// are the bits its row owns, which the merge copies.
constexpr uint32_t kRepInputBits[] = {VDP_REP_INPUT_ON, VDP_REP_INPUT_OFF, VDP_REP_INPUT_DISABLED};
static_assert((kRepInputBits[0] | kRepInputBits[1] | kRepInputBits[2]) ==
              vdpol::keyword(VDP_SLOT_REP_INPUT).bits);

Applied store_text(ParseContext &ctx, char **field, std::string_view text) {
  if (vdpol::replace_text(field, text)) return Applied::ok;
  fail(ctx, "memory allocation failure");
  return Applied::failed;
}

Applied store_bit(ParseContext &ctx, const Keyword &k, uint64_t on) {
  uint32_t &word = field_of<uint32_t>(*ctx.policy, k);
  word = on != 0 ? (word | k.bits) : (word & ~k.bits);
  return Applied::ok;
}

// Numbers wrap into their field, as the option parsers do.
Applied store_generic(ParseContext &ctx, const Keyword &k, uint64_t number, const char *text) {
  PolicyConfig_t &p = *ctx.policy;
  switch (k.type) {
    case VDOPT_INT32:
      field_of<int32_t>(p, k) = static_cast<int32_t>(number);
      return Applied::ok;
    case VDOPT_UINT32:
      field_of<uint32_t>(p, k) = static_cast<uint32_t>(number);
      return Applied::ok;
    case VDOPT_INT64:
      field_of<int64_t>(p, k) = static_cast<int64_t>(number);
      return Applied::ok;
    case VDOPT_UINT64:
      field_of<uint64_t>(p, k) = number;
      return Applied::ok;
    case VDOPT_STR_DYNAMIC:
      return store_text(ctx, &field_of<char *>(p, k), text);
    default:
      return Applied::syntax_error;
  }
}

Applied store_key(ParseContext &ctx, uint64_t number) {
  const uint64_t key = ctx.policy->polcfg_key;
  if (key == 0) {
    fail(ctx, "Option 'key' not allowed");
    return Applied::failed;
  }
  if (number != key) {
    fail(ctx, "Policy file key %ld doesn't match key option value %ld", static_cast<long>(key),
         static_cast<long>(number));
    return Applied::failed;
  }
  return Applied::ok;
}

// For live use the root names the key's directory through the file
// system's special handle path under its mount point.
Applied store_root(ParseContext &ctx, std::string_view value) {
  const char *mount = ctx.policy->polcfg_mount;
  if (!ctx.do_inherit || mount == nullptr) return store_text(ctx, &ctx.policy->polcfg_root, value);
  char *root = vdpol::dup_joined({mount, kHandleDir, value});
  if (root == nullptr) {
    fail(ctx, "memory allocation failure");
    return Applied::failed;
  }
  std::free(ctx.policy->polcfg_root);
  ctx.policy->polcfg_root = root;
  return Applied::ok;
}

// Eight bytes, space padded, first character in the lowest byte.
Applied store_affinity(ParseContext &ctx, std::string_view value) {
  if (value.size() > kAffinityLen) {
    fail(ctx, "Affinity value must be 8 chars of less");
    return Applied::failed;
  }
  uint64_t packed = 0;
  for (std::size_t i = 0; i < kAffinityLen; ++i) {
    auto byte = static_cast<unsigned char>(i < value.size() ? value[i] : ' ');
    packed |= static_cast<uint64_t>(byte) << (8 * i);
  }
  ctx.policy->polcfg_affinity = packed;
  return Applied::ok;
}

// A blackout window is kept as text; it is compiled when the whole policy
// is loaded. Brackets around it are optional and dropped.
Applied store_window(ParseContext &ctx, char **field, std::string_view value) {
  if (!value.empty() && value.front() == '[') {
    std::size_t close = value.find(']');
    if (close == std::string_view::npos) {
      fail(ctx, "Bad schedule specifier");
      return Applied::failed;
    }
    value = value.substr(1, close - 1);
  }
  return store_text(ctx, field, value);
}

Applied store_rep_input(ParseContext &ctx, uint64_t choice) {
  if (choice >= std::size(kRepInputBits)) return Applied::syntax_error;
  uint32_t &flags = ctx.policy->polcfg_rep_flags;
  flags = (flags & ~VDP_REP_INPUT_MASK) | kRepInputBits[choice];
  return Applied::ok;
}

Applied store_realize(ParseContext &ctx, std::string_view value) {
  while (!value.empty() && value.back() == '/') value.remove_suffix(1);
  return store_text(ctx, &ctx.policy->polcfg_realize, value);
}

Applied store_namespace(ParseContext &ctx, std::string_view value) {
  if (!vdpol::set_steering(ctx, value)) return Applied::failed;
  return store_text(ctx, &ctx.policy->polcfg_cloud_container, value);
}

Applied store_value(ParseContext &ctx, const Keyword &k, uint64_t number, const char *text) {
  PolicyConfig_t *p = ctx.policy;
  switch (k.slot) {
    case VDP_SLOT_NAME:
      if (std::strlen(text) > kMaxNameLen) {
        fail(ctx, "policy name too long");
        return Applied::failed;
      }
      return store_text(ctx, &p->polcfg_name, text);
    case VDP_SLOT_KEY:
      return store_key(ctx, number);
    case VDP_SLOT_ROOT:
      return store_root(ctx, text);
    case VDP_SLOT_AFFINITY:
      return store_affinity(ctx, text);
    case VDP_SLOT_INGEST_OFF:
      return store_window(ctx, &p->polcfg_ingest_sched_str, text);
    case VDP_SLOT_REP_OFF:
      return store_window(ctx, &p->polcfg_rep_sched_str, text);
    case VDP_SLOT_OBJS_NAMESPACE:
      return store_namespace(ctx, text);
    case VDP_SLOT_REP_INPUT:
      return store_rep_input(ctx, number);
    case VDP_SLOT_REP_TARGET:
      return vdpol::add_rep_target(ctx, text) ? Applied::ok : Applied::failed;
    case VDP_SLOT_REP_REALIZE:
      return store_realize(ctx, text);
    default:
      break;
  }
  if (k.type == VDOPT_BITMASK) return store_bit(ctx, k, number);
  return store_generic(ctx, k, number, text);
}

}  // namespace

namespace vdpol {

Applied apply_option(ParseContext &ctx, int slot, uint64_t number, const char *text) {
  const Keyword *k = find_keyword(slot);
  if (k == nullptr) return Applied::syntax_error;
  vdp_origin_t &origin = ctx.policy->polcfg_origin[slot];
  if (origin == VDP_ORIGIN_LOCAL) {
    // A policy's first name is the one it is known by; later ones are
    // ignored. rep_target may be repeated: each adds a target.
    if (slot == VDP_SLOT_NAME) return Applied::ok;
    if (slot != VDP_SLOT_REP_TARGET) return Applied::syntax_error;
  }
  origin = VDP_ORIGIN_LOCAL;
  return store_value(ctx, *k, number, text);
}

}  // namespace vdpol
