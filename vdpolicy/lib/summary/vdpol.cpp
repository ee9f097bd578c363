// The summary record: a flat copy of a cached configuration that the
// caller owns (except vdp_cloud_regex, borrowed from the cache).
#include <cstdlib>

#include "libutil/kxlog.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_keywords.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/summary/vdpol.h"

namespace {

constexpr int kNoMemory = 12;
constexpr int kInvalid = 22;
constexpr uint32_t kFreedMark = 0xDEAD0000u;

using Message = vdpol::CallerMessage;

// Fills the record field by field; each field's origin is copied just
// before the field. Stops at the first failure (rc non-zero).
struct Builder {
  Vdp_t *r;
  const PolicyConfig_t *c;
  Message &msg;
  int rc = 0;

  void origin(int slot) const { r->vdp_origin[slot] = c->polcfg_origin[slot]; }

  template <typename T, typename V>
  void value(int slot, T Vdp_t::*field, V v) {
    if (rc != 0) return;
    origin(slot);
    r->*field = static_cast<T>(v);
  }

  // On when the configuration has the keyword's bit set.
  void flag(const vdpol::Keyword &k, VdOpt_bool_t Vdp_t::*field) {
    const bool on = (vdpol::field_of<uint32_t>(*c, k) & k.bits) != 0;
    value(k.slot, field, on ? VDOPT_TRUE : VDOPT_FALSE);
  }

  void text(int slot, char *Vdp_t::*field, const char *src) {
    if (rc != 0) return;
    origin(slot);
    if (src == nullptr) return;
    r->*field = vdpol::dup_text(src);
    if (r->*field == nullptr)
      rc = msg.fail(kNoMemory, "Policy: Allocation failed - out of memory(%d)", slot);
  }

  // 1 on, 0 off, -1 disabled; a slot that was set without one of the three
  // bits is a configuration this library cannot have made.
  void rep_input() {
    if (rc != 0) return;
    origin(VDP_SLOT_REP_INPUT);
    const uint32_t flags = c->polcfg_rep_flags;
    r->vdp_rep_input_ctrl = 0;  // off, or never set
    if ((flags & VDP_REP_INPUT_ON) != 0)
      r->vdp_rep_input_ctrl = 1;
    else if ((flags & VDP_REP_INPUT_OFF) == 0 && (flags & VDP_REP_INPUT_DISABLED) != 0)
      r->vdp_rep_input_ctrl = -1;
    else if ((flags & VDP_REP_INPUT_MASK) == 0 &&
             c->polcfg_origin[VDP_SLOT_REP_INPUT] != VDP_ORIGIN_DEFAULT)
      rc = msg.fail(kInvalid, "Policy: Invalid rep flags (%d/0x%X)",
                    static_cast<int>(c->polcfg_origin[VDP_SLOT_REP_INPUT]), flags);
  }

  void targets() {
    if (rc != 0) return;
    rc = _pol_targets_to_vdp(c, r, msg.text, sizeof msg.text);
    if (rc != 0) msg.publish();
  }

  void fill();
};

void Builder::fill() {
  using R = Vdp_t;
  using vdpol::keyword;
  text(VDP_SLOT_NAME, &R::vdp_name, c->polcfg_name);
  text(VDP_SLOT_INHERIT, &R::vdp_inherit, c->polcfg_inherit);
  value(VDP_SLOT_KEY, &R::vdp_key, c->polcfg_key);
  text(VDP_SLOT_ROOT, &R::vdp_root, c->polcfg_root);
  value(VDP_SLOT_AFFINITY, &R::vdp_affinity, c->polcfg_affinity);
  text(VDP_SLOT_INGEST_OFF, &R::vdp_ingest_sched, c->polcfg_ingest_sched_str);
  flag(keyword(VDP_SLOT_DEDUP), &R::vdp_dedup_onoff);
  flag(keyword(VDP_SLOT_DEDUP_FILTER), &R::vdp_dedup_filter_onoff);
  value(VDP_SLOT_MAX_SEG_SIZE, &R::vdp_dedup_max_seg_sz, c->polcfg_max_seg_size);
  value(VDP_SLOT_MAX_SEG_AGE, &R::vdp_dedup_max_seg_age, c->polcfg_max_seg_age);
  value(VDP_SLOT_DEDUP_AGE, &R::vdp_dedup_min_age, c->polcfg_dedup_age);
  value(VDP_SLOT_DEDUP_MIN_SIZE, &R::vdp_dedup_min_size, c->polcfg_dedup_min_size);
  value(VDP_SLOT_DEDUP_SEG_SIZE, &R::vdp_dedup_seg_size, c->polcfg_dedup_seg_size);
  value(VDP_SLOT_DEDUP_MIN_ROUND, &R::vdp_dedup_min_round, c->polcfg_dedup_min_round);
  value(VDP_SLOT_DEDUP_MAX_ROUND, &R::vdp_dedup_max_round, c->polcfg_dedup_max_round);
  text(VDP_SLOT_DEDUP_SKIP, &R::vdp_dedup_regex, c->polcfg_dedup_regex);
  value(VDP_SLOT_DEDUP_PRI, &R::vdp_dedup_pri, c->polcfg_dedup_pri);
  text(VDP_SLOT_DEDUP_BFST, &R::vdp_dedup_bfst, c->polcfg_dedup_bfst);
  value(VDP_SLOT_FENCEPOST_GAP, &R::vdp_fencepost_gap, c->polcfg_fencepost_gap);
  flag(keyword(VDP_SLOT_OBJS), &R::vdp_cloud_onoff);
  text(VDP_SLOT_OBJS_ID, &R::vdp_cloud_id, c->polcfg_cloud_id);
  text(VDP_SLOT_OBJS_NAMESPACE, &R::vdp_cloud_container, c->polcfg_cloud_container);
  value(VDP_SLOT_OBJS_MIN_SIZE, &R::vdp_cloud_min_size, c->polcfg_cloud_min_size);
  value(VDP_SLOT_OBJS_SEG_SIZE, &R::vdp_cloud_seg_size, c->polcfg_cloud_seg_size);
  value(VDP_SLOT_OBJS_AGE, &R::vdp_cloud_min_age, c->polcfg_cloud_age);
  value(VDP_SLOT_OBJS_SKIP, &R::vdp_cloud_regex, c->polcfg_cloud_regex);  // borrowed
  value(VDP_SLOT_OBJS_PRI, &R::vdp_cloud_pri, c->polcfg_cloud_pri);
  flag(keyword(VDP_SLOT_TRUNC), &R::vdp_trunc_onoff);
  value(VDP_SLOT_TRUNC_AGE, &R::vdp_trunc_min_age, c->polcfg_trunc_age);
  value(VDP_SLOT_TRUNC_MIN_SIZE, &R::vdp_trunc_min_size, c->polcfg_trunc_size);
  value(VDP_SLOT_TRUNC_LOW_WATER, &R::vdp_trunc_low_water, c->polcfg_trunc_low_water);
  value(VDP_SLOT_TRUNC_HIGH_WATER, &R::vdp_trunc_high_water, c->polcfg_trunc_high_water);
  value(VDP_SLOT_TRUNC_STUB_SIZE, &R::vdp_trunc_stub_size, c->polcfg_trunc_stub_size);
  text(VDP_SLOT_TRUNC_SKIP, &R::vdp_trunc_regex, c->polcfg_trunc_regex);
  value(VDP_SLOT_TRUNC_PRI, &R::vdp_trunc_pri, c->polcfg_trunc_pri);
  rep_input();
  flag(keyword(VDP_SLOT_REP_OUTPUT), &R::vdp_rep_output_onoff);
  flag(keyword(VDP_SLOT_REP_SUBTREE), &R::vdp_rep_subtree_onoff);
  flag(keyword(VDP_SLOT_REP_DEDUP), &R::vdp_rep_dedup_onoff);
  flag(keyword(VDP_SLOT_REP_COMPRESS), &R::vdp_rep_compress_onoff);
  flag(keyword(VDP_SLOT_REP_ENCRYPT), &R::vdp_rep_encrypt_onoff);
  flag(keyword(VDP_SLOT_REP_REPORT), &R::vdp_rep_report_onoff);
  targets();
  value(VDP_SLOT_REP_INLINE_SIZE, &R::vdp_rep_inline_size, c->polcfg_rep_inline_size);
  value(VDP_SLOT_REP_COPIES, &R::vdp_rep_copies, c->polcfg_rep_copies);
  text(VDP_SLOT_REP_REALIZE, &R::vdp_rep_realize, c->polcfg_realize);
  if (rc == 0) vdp_strip_trailing_slash(r->vdp_rep_realize);
  text(VDP_SLOT_REP_CALLOUT, &R::vdp_rep_callout, c->polcfg_rep_callout);
  text(VDP_SLOT_REP_NAME, &R::vdp_rep_name, c->polcfg_rep_name);
  text(VDP_SLOT_REP_RELATION, &R::vdp_rep_relation, c->polcfg_rep_relation);
  text(VDP_SLOT_REP_SKIP, &R::vdp_rep_regex, c->polcfg_rep_regex);
  text(VDP_SLOT_REP_OFF, &R::vdp_rep_sched_str, c->polcfg_rep_sched_str);
  value(VDP_SLOT_REP_PRI, &R::vdp_rep_pri, c->polcfg_rep_pri);
}

// Appends one node at the tail of the record's list.
void append_target(Vdp_t *record, vdp_target_t *node) {
  vdp_target_t **tail = &record->vdp_rep_target_first;
  while (*tail != nullptr) tail = &(*tail)->vdp_target_next;
  *tail = node;
}

}  // namespace

extern "C" {

int vdp_alloc(Vdp_t **record, char *errbuf, size_t errlen) {
  auto *r = static_cast<Vdp_t *>(vdpol::mem_calloc(1, sizeof(Vdp_t)));
  if (r == nullptr) {
    Message msg(errbuf, errlen);
    int rc = msg.fail(kNoMemory, "Policy: Allocation failed - out of memory");
    __kxfs_logfn(KXLOG_ERROR, "vdp_alloc: failed %d: %s\n", rc, msg.text);
    return rc;
  }
  r->vdp_version = VDP_POLCFG_VERSION;
  r->vdp_dedup_max_seg_sz = -1;
  r->vdp_dedup_max_seg_age = -1;
  VDPOL_TRACE(KXFS_FAC_VDPOLICY, vdpol::kTraceRecord, "vdp_alloc: OK: vdp_t = %p\n",
              static_cast<void *>(r));
  *record = r;
  return 0;
}

int _pol_targets_to_vdp(const PolicyConfig_t *config, Vdp_t *record, char *errbuf, size_t errlen) {
  record->vdp_origin[VDP_SLOT_REP_TARGET] = config->polcfg_origin[VDP_SLOT_REP_TARGET];
  Message msg(errbuf, errlen);
  for (uint32_t i = 0; i < config->polcfg_rep_targ_cnt; ++i) {
    const pol_target_t *target = config->polcfg_rep_target[i];
    const char *raw = target != nullptr ? target->raw_target : nullptr;
    int rc = 0;
    if (raw == nullptr || raw[0] == '\0') {
      rc = msg.fail(kInvalid, "ERROR(%d) NULL or empty target string", kInvalid);
    } else {
      auto *node = static_cast<vdp_target_t *>(vdpol::mem_calloc(1, sizeof(vdp_target_t)));
      char *copy = node != nullptr ? vdpol::dup_text(raw) : nullptr;
      if (copy == nullptr) {
        std::free(node);
        rc = msg.fail(kNoMemory, "ERROR(%d) Out of memory", kNoMemory);
      } else {
        node->vdp_raw_target = copy;
        append_target(record, node);
        VDPOL_TRACE(KXFS_FAC_VDPOLICY, vdpol::kTraceRecord, "    :Added Targ=%p Str=%p=%s\n",
                    static_cast<void *>(node), static_cast<void *>(copy), copy);
      }
    }
    if (rc != 0) {
      __kxfs_logfn(KXLOG_ERROR, "_pol_targets_to_vdp: failed %d: %s\n", rc, msg.text);
      return rc;
    }
  }
  VDPOL_TRACE(KXFS_FAC_VDPOLICY, vdpol::kTraceRecord, "_pol_targets_to_vdp: OK\n");
  return 0;
}

int _policy_to_vdp(Vdp_t **record, const PolicyConfig_t *config, char *errbuf, size_t errlen) {
  *record = nullptr;
  Vdp_t *r = nullptr;
  int rc = vdp_alloc(&r, errbuf, errlen);
  if (rc != 0 || r == nullptr) return rc != 0 ? rc : kNoMemory;
  Message msg(errbuf, errlen);
  Builder builder{r, config, msg};
  builder.fill();
  if (builder.rc != 0) {
    vdp_free(&r);
    __kxfs_logfn(KXLOG_ERROR, "_policy_to_vdp: failed %d: %s\n", builder.rc, msg.text);
    return builder.rc;
  }
  VDPOL_TRACE(KXFS_FAC_VDPOLICY, vdpol::kTraceRecord, "_policy_to_vdp: OK\n");
  *record = r;
  return 0;
}

void vdp_strip_trailing_slash(char *str) {
  if (str == nullptr || str[0] == '\0') return;
  char *end = str;
  while (*end != '\0') ++end;
  while (end > str && end[-1] == '/') *--end = '\0';
}

void vdp_free(Vdp_t **record) {
  Vdp_t *r = record != nullptr ? *record : nullptr;
  VDPOL_TRACE(KXFS_FAC_VDPOLICY, vdpol::kTraceRecord, "vdp_free: OK: vdp_t = %p\n",
              static_cast<void *>(r));
  if (record != nullptr) *record = nullptr;
  if (r == nullptr) return;
  for (char *Vdp_t::*field :
       {&Vdp_t::vdp_name, &Vdp_t::vdp_inherit, &Vdp_t::vdp_root, &Vdp_t::vdp_ingest_sched,
        &Vdp_t::vdp_dedup_regex, &Vdp_t::vdp_dedup_bfst, &Vdp_t::vdp_trunc_regex,
        &Vdp_t::vdp_rep_realize, &Vdp_t::vdp_rep_callout, &Vdp_t::vdp_rep_name,
        &Vdp_t::vdp_rep_relation, &Vdp_t::vdp_rep_regex, &Vdp_t::vdp_rep_sched_str,
        &Vdp_t::vdp_cloud_id, &Vdp_t::vdp_cloud_container})
    std::free(r->*field);  // never vdp_cloud_regex: it belongs to the cache
  for (vdp_target_t *node = r->vdp_rep_target_first; node != nullptr;) {
    vdp_target_t *next = node->vdp_target_next;
    std::free(node->vdp_raw_target);
    std::free(node);
    node = next;
  }
  r->vdp_rep_target_first = nullptr;
  r->vdp_version = kFreedMark | (r->vdp_version & 0xFFFFu);
  std::free(r);
}

}  // extern "C"
