// Storing one option's value in a PolicyConfig_t: the generic stores driven
// by the keyword table's type and field offset, and the keywords whose
// values need more than a copy (name, key, root, affinity, blackout
// windows, booleans, rep_input, rep_realize).
#include <array>
#include <cstring>
#include <string_view>

#include "vdpolicy/lib/policy_internal.h"
#include "vdpolicy/lib/policy_parse_internal.h"

namespace vdpol {

const Option *row_for_slot(int slot) {
  static const std::array<const Option *, VDP_NUM_SLOTS> rows = [] {
    std::array<const Option *, VDP_NUM_SLOTS> r{};
    for (const Option *row = PolicyOptions; row->m_name != nullptr; ++row)
      if (row->m_option >= 0 && row->m_option < VDP_NUM_SLOTS &&
          r[static_cast<size_t>(row->m_option)] == nullptr)
        r[static_cast<size_t>(row->m_option)] = row;
    return r;
  }();
  if (slot < 0 || slot >= VDP_NUM_SLOTS) return nullptr;
  return rows[static_cast<size_t>(slot)];
}

}  // namespace vdpol

namespace {

using vdpol::Applied;
using vdpol::fail;
using vdpol::ParseContext;

constexpr std::size_t kMaxNameLen = 31;
constexpr std::size_t kAffinityLen = 8;
constexpr std::string_view kHandleDir = "/__KXFS_Handle.";

// The bit each boolean keyword sets in the word its row names.
struct BitOption {
  int slot;
  uint32_t bit;
};
constexpr BitOption kBitOptions[] = {
    {VDP_SLOT_DEDUP, VDP_FLAG_DEDUP},
    {VDP_SLOT_TRUNC, VDP_FLAG_TRUNC},
    {VDP_SLOT_REP_OUTPUT, VDP_FLAG_REP_OUTPUT},
    {VDP_SLOT_DEDUP_FILTER, VDP_FLAG_DEDUP_FILTER},
    {VDP_SLOT_OBJS, VDP_FLAG_OBJS},
    {VDP_SLOT_REP_SUBTREE, VDP_REP_SUBTREE},
    {VDP_SLOT_REP_DEDUP, VDP_REP_DEDUP},
    {VDP_SLOT_REP_REPORT, VDP_REP_REPORT},
    {VDP_SLOT_REP_COMPRESS, VDP_REP_COMPRESS},
    {VDP_SLOT_REP_ENCRYPT, VDP_REP_ENCRYPT},
};

// rep_input's choice groups, in the order of the row's list.
constexpr uint32_t kRepInputBits[] = {VDP_REP_INPUT_ON, VDP_REP_INPUT_OFF, VDP_REP_INPUT_DISABLED};

template <typename T>
T *field_at(PolicyConfig_t *policy, const Option &row) {
  return reinterpret_cast<T *>(reinterpret_cast<char *>(policy) + row.m_field_offset);
}

Applied store_text(ParseContext &ctx, char **field, std::string_view text) {
  if (vdpol::replace_text(field, text)) return Applied::ok;
  fail(ctx, "memory allocation failure");
  return Applied::failed;
}

Applied store_bit(ParseContext &ctx, const Option &row, int slot, uint64_t on) {
  uint32_t *word = field_at<uint32_t>(ctx.policy, row);
  for (const BitOption &b : kBitOptions) {
    if (b.slot != slot) continue;
    *word = on != 0 ? (*word | b.bit) : (*word & ~b.bit);
    return Applied::ok;
  }
  return Applied::syntax_error;  // a boolean row without a known bit
}

// Numbers wrap into their field, as the option parsers do.
Applied store_generic(ParseContext &ctx, const Option &row, uint64_t number, const char *text) {
  PolicyConfig_t *p = ctx.policy;
  switch (row.m_vdopt_type) {
    case VDOPT_INT32:
      *field_at<int32_t>(p, row) = static_cast<int32_t>(number);
      return Applied::ok;
    case VDOPT_UINT32:
      *field_at<uint32_t>(p, row) = static_cast<uint32_t>(number);
      return Applied::ok;
    case VDOPT_INT64:
      *field_at<int64_t>(p, row) = static_cast<int64_t>(number);
      return Applied::ok;
    case VDOPT_UINT64:
      *field_at<uint64_t>(p, row) = number;
      return Applied::ok;
    case VDOPT_STR_DYNAMIC:
      return store_text(ctx, field_at<char *>(p, row), text);
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

Applied store_value(ParseContext &ctx, const Option &row, int slot, uint64_t number,
                    const char *text) {
  PolicyConfig_t *p = ctx.policy;
  switch (slot) {
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
  if (row.m_vdopt_type == VDOPT_BITMASK) return store_bit(ctx, row, slot, number);
  return store_generic(ctx, row, number, text);
}

}  // namespace

namespace vdpol {

Applied apply_option(ParseContext &ctx, int slot, uint64_t number, const char *text) {
  const Option *row = row_for_slot(slot);
  if (row == nullptr) return Applied::syntax_error;
  vdp_origin_t &origin = ctx.policy->polcfg_origin[slot];
  if (origin == VDP_ORIGIN_LOCAL) {
    // A policy's first name is the one it is known by; later ones are
    // ignored. rep_target may be repeated: each adds a target.
    if (slot == VDP_SLOT_NAME) return Applied::ok;
    if (slot != VDP_SLOT_REP_TARGET) return Applied::syntax_error;
  }
  origin = VDP_ORIGIN_LOCAL;
  return store_value(ctx, *row, slot, number, text);
}

}  // namespace vdpol
