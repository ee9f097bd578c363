// The policy keyword table; internal to the policy library, not installed.
//
// One row per keyword: the keyword with its value syntax, its slot, the
// bounds of a number (0: none), the type and the PolicyConfig_t field that
// take the value, the bits of that field a boolean owns (rep_input: its
// three choice bits; 0 for every other kind), and the help text. Row order
// matters: parse_option takes the first row that matches, and the table is
// also the order in which policies are listed for display. The objs_* and
// was_* rows are two spellings of one option and both stay.
//
// The rows are a list rather than an array because two tables are made from
// them: PolicyOptions (policy_options.cpp), the C array that parse_option
// and C callers read and that can only be initialised from a list of its
// rows, and kKeywords below, by which the library stores, merges and reports
// each value. A boolean's bit thus stands beside its slot in one place; the
// checks at the end hold every row to the record at compile time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>

#include "vdpolicy/lib/config/policy.h"

#define VDP_POLICY_KEYWORDS(ROW)                                                                   \
  ROW("name=%s", VDP_SLOT_NAME, 0, 0, VDOPT_STR_DYNAMIC, polcfg_name, 0, "policy id")              \
  ROW("inherit=%s", VDP_SLOT_INHERIT, 0, 0, VDOPT_STR_DYNAMIC, polcfg_inherit, 0,                  \
      "inherit attributes from named policy")                                                      \
  ROW("key=%d", VDP_SLOT_KEY, 0, 0, VDOPT_UINT64, polcfg_key, 0, "policy key value")               \
  ROW("root=%s", VDP_SLOT_ROOT, 0, 0, VDOPT_STR_DYNAMIC, polcfg_root, 0,                           \
      "root directory of policy key")                                                              \
  ROW("affinity=%s", VDP_SLOT_AFFINITY, 0, 0, VDOPT_UINT64, polcfg_affinity, 0,                    \
      "affinity to assign data to")                                                                \
  ROW("ingest_off=%s", VDP_SLOT_INGEST_OFF, 0, 0, VDOPT_STR_DYNAMIC, polcfg_ingest_sched_str, 0,   \
      "time window when ingest is disabled")                                                       \
  ROW("dedup=%b", VDP_SLOT_DEDUP, 0, 1, VDOPT_BITMASK, polcfg_flags, VDP_FLAG_DEDUP,               \
      "dedup policy")                                                                              \
  ROW("objs=%b", VDP_SLOT_OBJS, 0, 1, VDOPT_BITMASK, polcfg_flags, VDP_FLAG_OBJS, "OBJS policy")   \
  ROW("was=%b", VDP_SLOT_OBJS, 0, 1, VDOPT_BITMASK, polcfg_flags, VDP_FLAG_OBJS, "OBJS policy")    \
  ROW("dedup_filter=%b", VDP_SLOT_DEDUP_FILTER, 0, 0, VDOPT_BITMASK, polcfg_flags,                 \
      VDP_FLAG_DEDUP_FILTER, "metadata filtering on dedup")                                        \
  ROW("max_seg_size=%D", VDP_SLOT_MAX_SEG_SIZE, 0, 0, VDOPT_INT64, polcfg_max_seg_size, 0,         \
      "maximum ingest segment size")                                                               \
  ROW("max_seg_age=%t", VDP_SLOT_MAX_SEG_AGE, 0, 0, VDOPT_INT32, polcfg_max_seg_age, 0,            \
      "maximum ingest segment age")                                                                \
  ROW("dedup_age=%t", VDP_SLOT_DEDUP_AGE, 0, 0, VDOPT_UINT32, polcfg_dedup_age, 0,                 \
      "minimum age in seconds before dedup")                                                       \
  ROW("dedup_min_size=%D", VDP_SLOT_DEDUP_MIN_SIZE, 0, 0, VDOPT_UINT64, polcfg_dedup_min_size, 0,  \
      "files smaller than this are not deduplicated")                                              \
  ROW("dedup_seg_size=%D", VDP_SLOT_DEDUP_SEG_SIZE, 0, 0, VDOPT_UINT64, polcfg_dedup_seg_size, 0,  \
      "maximum chunk deduplicated in one piece")                                                   \
  ROW("dedup_min_round=%D", VDP_SLOT_DEDUP_MIN_ROUND, 0, 0, VDOPT_UINT64, polcfg_dedup_min_round,  \
      0, "minimum dedup rounding size")                                                            \
  ROW("dedup_max_round=%D", VDP_SLOT_DEDUP_MAX_ROUND, 0, 0, VDOPT_UINT64, polcfg_dedup_max_round,  \
      0, "maximum dedup rounding size")                                                            \
  ROW("dedup_skip=%s", VDP_SLOT_DEDUP_SKIP, 0, 0, VDOPT_STR_DYNAMIC, polcfg_dedup_regex, 0,        \
      "filter out files to not dedup")                                                             \
  ROW("dedup_pri=%d", VDP_SLOT_DEDUP_PRI, 0, 999, VDOPT_UINT32, polcfg_dedup_pri, 0,               \
      "relative dedup priority")                                                                   \
  ROW("dedup_bfst=%s", VDP_SLOT_DEDUP_BFST, 0, 0, VDOPT_STR_DYNAMIC, polcfg_dedup_bfst, 0,         \
      "address of blockpool server")                                                               \
  ROW("fencepost_gap=%D", VDP_SLOT_FENCEPOST_GAP, 0, 0, VDOPT_INT64, polcfg_fencepost_gap, 0,      \
      "fencepost gap size")                                                                        \
  ROW("objs_id=%s", VDP_SLOT_OBJS_ID, 0, 0, VDOPT_STR_DYNAMIC, polcfg_cloud_id, 0,                 \
      "OBJS configuration identifier")                                                             \
  ROW("was_id=%s", VDP_SLOT_OBJS_ID, 0, 0, VDOPT_STR_DYNAMIC, polcfg_cloud_id, 0,                  \
      "OBJS configuration identifier")                                                             \
  ROW("objs_namespace=%s", VDP_SLOT_OBJS_NAMESPACE, 0, 0, VDOPT_STR_DYNAMIC,                       \
      polcfg_cloud_container, 0, "target OBJS namespace or steering namespaces")                   \
  ROW("was_namespace=%s", VDP_SLOT_OBJS_NAMESPACE, 0, 0, VDOPT_STR_DYNAMIC,                        \
      polcfg_cloud_container, 0, "target OBJS namespace or steering namespaces")                   \
  ROW("objs_age=%t", VDP_SLOT_OBJS_AGE, 0, 0, VDOPT_UINT32, polcfg_cloud_age, 0,                   \
      "minimum age in seconds before stored")                                                      \
  ROW("was_age=%t", VDP_SLOT_OBJS_AGE, 0, 0, VDOPT_UINT32, polcfg_cloud_age, 0,                    \
      "minimum age in seconds before stored")                                                      \
  ROW("objs_min_size=%D", VDP_SLOT_OBJS_MIN_SIZE, 0, 0, VDOPT_UINT64, polcfg_cloud_min_size, 0,    \
      "files smaller than this are not stored to Object Storage")                                  \
  ROW("was_min_size=%D", VDP_SLOT_OBJS_MIN_SIZE, 0, 0, VDOPT_UINT64, polcfg_cloud_min_size, 0,     \
      "files smaller than this are not stored to Object Storage")                                  \
  ROW("objs_seg_size=%D", VDP_SLOT_OBJS_SEG_SIZE, 0, 0, VDOPT_UINT64, polcfg_cloud_seg_size, 0,    \
      "maximum chunk stored in Object Storage")                                                    \
  ROW("was_seg_size=%D", VDP_SLOT_OBJS_SEG_SIZE, 0, 0, VDOPT_UINT64, polcfg_cloud_seg_size, 0,     \
      "maximum chunk stored in Object Storage")                                                    \
  ROW("objs_skip=%s", VDP_SLOT_OBJS_SKIP, 0, 0, VDOPT_STR_DYNAMIC, polcfg_cloud_regex, 0,          \
      "filter out files to not store")                                                             \
  ROW("was_skip=%s", VDP_SLOT_OBJS_SKIP, 0, 0, VDOPT_STR_DYNAMIC, polcfg_cloud_regex, 0,           \
      "filter out files to not store")                                                             \
  ROW("objs_pri=%d", VDP_SLOT_OBJS_PRI, 0, 999, VDOPT_UINT32, polcfg_cloud_pri, 0,                 \
      "relative OBJS priority")                                                                    \
  ROW("was_pri=%d", VDP_SLOT_OBJS_PRI, 0, 999, VDOPT_UINT32, polcfg_cloud_pri, 0,                  \
      "relative OBJS priority")                                                                    \
  ROW("trunc=%b", VDP_SLOT_TRUNC, 0, 1, VDOPT_BITMASK, polcfg_flags, VDP_FLAG_TRUNC,               \
      "truncate policy")                                                                           \
  ROW("trunc_age=%t", VDP_SLOT_TRUNC_AGE, 0, 0, VDOPT_UINT32, polcfg_trunc_age, 0,                 \
      "minimum age in seconds before truncate")                                                    \
  ROW("trunc_min_size=%D", VDP_SLOT_TRUNC_MIN_SIZE, 0, 0, VDOPT_UINT64, polcfg_trunc_size, 0,      \
      "minimum file size to truncate")                                                             \
  ROW("trunc_low_water=%d", VDP_SLOT_TRUNC_LOW_WATER, 0, 100, VDOPT_UINT32,                        \
      polcfg_trunc_low_water, 0, "file system low watermark for truncation")                       \
  ROW("trunc_high_water=%d", VDP_SLOT_TRUNC_HIGH_WATER, 0, 100, VDOPT_UINT32,                      \
      polcfg_trunc_high_water, 0, "file system high watermark for truncation")                     \
  ROW("trunc_stub_size=%D", VDP_SLOT_TRUNC_STUB_SIZE, 0, 0, VDOPT_UINT64, polcfg_trunc_stub_size,  \
      0, "size of stub to leave after truncate")                                                   \
  ROW("trunc_skip=%s", VDP_SLOT_TRUNC_SKIP, 0, 0, VDOPT_STR_DYNAMIC, polcfg_trunc_regex, 0,        \
      "filter out files to not trunc")                                                             \
  ROW("trunc_pri=%d", VDP_SLOT_TRUNC_PRI, 0, 999, VDOPT_UINT32, polcfg_trunc_pri, 0,               \
      "relative truncate priority")                                                                \
  ROW("rep_input=|on,true|off,false|disabled", VDP_SLOT_REP_INPUT, 0, 0, VDOPT_BITMASK,            \
      polcfg_rep_flags, VDP_REP_INPUT_MASK, "replication input policy - 'false' = not a target.")  \
  ROW("rep_output=%b", VDP_SLOT_REP_OUTPUT, 0, 0, VDOPT_BITMASK, polcfg_flags,                     \
      VDP_FLAG_REP_OUTPUT, "replication output policy")                                            \
  ROW("rep_subtree=%b", VDP_SLOT_REP_SUBTREE, 0, 0, VDOPT_BITMASK, polcfg_rep_flags,               \
      VDP_REP_SUBTREE, "replicate subtrees")                                                       \
  ROW("rep_dedup=%b", VDP_SLOT_REP_DEDUP, 0, 0, VDOPT_BITMASK, polcfg_rep_flags, VDP_REP_DEDUP,    \
      "replicate with deduped data")                                                               \
  ROW("rep_compress=%b", VDP_SLOT_REP_COMPRESS, 0, 0, VDOPT_BITMASK, polcfg_rep_flags,             \
      VDP_REP_COMPRESS, "on the wire compression for replication")                                 \
  ROW("rep_encrypt=%b", VDP_SLOT_REP_ENCRYPT, 0, 0, VDOPT_BITMASK, polcfg_rep_flags,               \
      VDP_REP_ENCRYPT, "on the wire encryption for replication")                                   \
  ROW("rep_report=%b", VDP_SLOT_REP_REPORT, 0, 0, VDOPT_BITMASK, polcfg_rep_flags, VDP_REP_REPORT, \
      "generate replication reports")                                                              \
  ROW("rep_target=%s", VDP_SLOT_REP_TARGET, 0, 0, VDOPT_SUBSTRUCT, polcfg_rep_target, 0,           \
      "replication target")                                                                        \
  ROW("rep_inline_size=%D", VDP_SLOT_REP_INLINE_SIZE, 0, 0, VDOPT_UINT32, polcfg_rep_inline_size,  \
      0, "replicate files smaller than this inline")                                               \
  ROW("rep_copies=%d", VDP_SLOT_REP_COPIES, 0, 16, VDOPT_UINT32, polcfg_rep_copies, 0,             \
      "number of namespace copies to keep")                                                        \
  ROW("rep_realize=%s", VDP_SLOT_REP_REALIZE, 0, 0, VDOPT_STR_DYNAMIC, polcfg_realize, 0,          \
      "name to use on target system")                                                              \
  ROW("rep_callout=%s", VDP_SLOT_REP_CALLOUT, 0, 0, VDOPT_STR_DYNAMIC, polcfg_rep_callout, 0,      \
      "replication callout script")                                                                \
  ROW("rep_name=%s", VDP_SLOT_REP_NAME, 0, 0, VDOPT_STR_DYNAMIC, polcfg_rep_name, 0,               \
      "name on replication target")                                                                \
  ROW("rep_relation=%s", VDP_SLOT_REP_RELATION, 0, 0, VDOPT_STR_DYNAMIC, polcfg_rep_relation, 0,   \
      "configure replication into this TSM relation point")                                        \
  ROW("rep_skip=%s", VDP_SLOT_REP_SKIP, 0, 0, VDOPT_STR_DYNAMIC, polcfg_rep_regex, 0,              \
      "filter out files to not replicate")                                                         \
  ROW("rep_off=%s", VDP_SLOT_REP_OFF, 0, 0, VDOPT_STR_DYNAMIC, polcfg_rep_sched_str, 0,            \
      "time window when replication is disabled")                                                  \
  ROW("rep_pri=%d", VDP_SLOT_REP_PRI, 0, 999, VDOPT_UINT32, polcfg_rep_pri, 0,                     \
      "relative replication priority")

namespace vdpol {

// A keyword as the library stores its value.
struct Keyword {
  vdp_slot slot;
  VdOpt_type_e type;       // the field's type
  std::size_t field;       // offset of the field in PolicyConfig_t
  std::size_t field_size;  // held to the type by the checks below
  uint32_t bits;           // VDOPT_BITMASK: the bits of the field it owns
};

#define VDP_KEYWORD_ROW(syntax, slot, min, max, type, field, bits, help) \
  Keyword{slot, type, offsetof(PolicyConfig_t, field), sizeof(PolicyConfig_t::field), bits},
inline constexpr Keyword kKeywords[] = {VDP_POLICY_KEYWORDS(VDP_KEYWORD_ROW)};
#undef VDP_KEYWORD_ROW

// The row number of each slot's first row (synonyms share theirs); -1 for
// a slot that no keyword sets. Row numbers rather than pointers, so that
// the table is a constant expression under every sanitizer too.
inline constexpr std::array<int, VDP_NUM_SLOTS> kRowOfSlot = [] {
  std::array<int, VDP_NUM_SLOTS> index{};
  index.fill(-1);
  for (std::size_t row = std::size(kKeywords); row-- > 0;)
    index[static_cast<std::size_t>(kKeywords[row].slot)] = static_cast<int>(row);
  return index;
}();

constexpr const Keyword *find_keyword(int slot) {
  if (slot < 0 || slot >= VDP_NUM_SLOTS) return nullptr;
  const int row = kRowOfSlot[static_cast<std::size_t>(slot)];
  return row < 0 ? nullptr : &kKeywords[row];
}

// The keyword of a slot named in the code: a slot without one does not
// compile.
consteval const Keyword &keyword(vdp_slot slot) {
  return *find_keyword(slot);
}

// The field a keyword's value is stored in.
template <typename T>
T &field_of(PolicyConfig_t &policy, const Keyword &k) {
  return *reinterpret_cast<T *>(reinterpret_cast<char *>(&policy) + k.field);
}
template <typename T>
const T &field_of(const PolicyConfig_t &policy, const Keyword &k) {
  return *reinterpret_cast<const T *>(reinterpret_cast<const char *>(&policy) + k.field);
}

namespace keyword_checks {

constexpr std::size_t width_of(VdOpt_type_e type) {
  switch (type) {
    case VDOPT_INT32:
    case VDOPT_UINT32:
    case VDOPT_BITMASK:
      return 4;
    case VDOPT_INT64:
    case VDOPT_UINT64:
      return 8;
    case VDOPT_STR_DYNAMIC:
    case VDOPT_SUBSTRUCT:
      return sizeof(void *);
    default:
      return 0;
  }
}

// A field of the wrong width would be written past or short of its end;
// a boolean without a bit would set nothing.
constexpr bool rows_fit_their_fields() {
  for (const Keyword &k : kKeywords)
    if (static_cast<int>(k.slot) >= VDP_NUM_SLOTS || k.field_size != width_of(k.type) ||
        (k.type == VDOPT_BITMASK) != (k.bits != 0))
      return false;
  return true;
}

// Two spellings of one option must store alike, and two options must not
// share a bit: setting one would set the other.
constexpr bool synonyms_agree_and_bits_are_own() {
  for (const Keyword &a : kKeywords)
    for (const Keyword &b : kKeywords) {
      if (a.slot == b.slot && (a.type != b.type || a.field != b.field || a.bits != b.bits))
        return false;
      if (a.slot != b.slot && a.field == b.field && (a.bits & b.bits) != 0) return false;
    }
  return true;
}

static_assert(rows_fit_their_fields());
static_assert(synonyms_agree_and_bits_are_own());

}  // namespace keyword_checks
}  // namespace vdpol
