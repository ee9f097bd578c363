// merge_policy: a parent fills what a policy left unset. Only slots whose
// origin is still DEFAULT are written, so along a chain the nearest
// definition wins; a value the parent itself had only by default stays
// DEFAULT in the child, so that a later parent may still fill it.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "libutil/kxlog.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_keywords.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/parse/policy_parent.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/store/policy_inherit.h"
#include "vdpolicy/lib/store/policy_store.h"

namespace {

using Config = PolicyConfig_t;
using vdpol::keyword;

struct Merger {
  Config *dst;
  const Config *src;

  bool open(int slot) const { return dst->polcfg_origin[slot] == VDP_ORIGIN_DEFAULT; }
  void mark(int slot) const {
    dst->polcfg_origin[slot] =
        src->polcfg_origin[slot] != VDP_ORIGIN_DEFAULT ? VDP_ORIGIN_INHERITED : VDP_ORIGIN_DEFAULT;
  }

  template <typename T>
  void value(int slot, T Config::*field) const {
    if (!open(slot)) return;
    dst->*field = src->*field;
    mark(slot);
  }

  // A boolean (or rep_input's choice) takes only its own bits of the word.
  void bits(const vdpol::Keyword &k) const {
    if (!open(k.slot)) return;
    uint32_t &word = vdpol::field_of<uint32_t>(*dst, k);
    word = (word & ~k.bits) | (vdpol::field_of<uint32_t>(*src, k) & k.bits);
    mark(k.slot);
  }

  // A parent's string is copied; a parent without one clears the child's.
  // A copy that fails leaves the slot null.
  static void copy_text(char *&to, const char *from) {
    std::free(to);
    to = from != nullptr ? vdpol::dup_text(from) : nullptr;
  }

  void text(int slot, char *Config::*field) const {
    if (!open(slot)) return;
    copy_text(dst->*field, src->*field);
    mark(slot);
  }

  void object_storage_namespace() const {
    if (!open(VDP_SLOT_OBJS_NAMESPACE)) return;
    if (src->polcfg_cloud_steer_cnt != 0) {
      vdpol::free_steer_entries(dst);
      dst->polcfg_cloud_steer_cnt = src->polcfg_cloud_steer_cnt;
      for (int i = 0; i < src->polcfg_cloud_steer_cnt && i < VDP_MAX_STEER_ENTRIES; ++i) {
        const steer_entry_t &from = src->polcfg_cloud_steer_entries[i];
        steer_entry_t &to = dst->polcfg_cloud_steer_entries[i];
        to.file_size = from.file_size;
        copy_text(to.container, from.container);
      }
    }
    copy_text(dst->polcfg_cloud_container, src->polcfg_cloud_container);
    mark(VDP_SLOT_OBJS_NAMESPACE);
  }

  // False when out of memory: the merge stops there.
  bool targets() const;
};

// A copy of one target: its text, its words' indexes and the first entry of
// its schedule (later entries of a schedule chain are not carried over).
pol_target_t *duplicate_target(const pol_target_t *from) {
  auto *to = static_cast<pol_target_t *>(vdpol::mem_calloc(1, sizeof(pol_target_t)));
  if (to == nullptr) return nullptr;
  if (from->raw_target != nullptr) to->raw_target = vdpol::dup_text(from->raw_target);
  to->target_cnt = from->target_cnt < VDP_MAX_TARGETS ? from->target_cnt : VDP_MAX_TARGETS;
  std::memcpy(to->target_idx, from->target_idx, to->target_cnt * sizeof to->target_idx[0]);
  if (from->schedule != nullptr) {
    to->schedule = static_cast<sched_entry_t *>(vdpol::mem_alloc(sizeof(sched_entry_t)));
    if (to->schedule != nullptr) {
      *to->schedule = *from->schedule;
      to->schedule->next = nullptr;
    }
  }
  return to;
}

bool Merger::targets() const {
  if (!open(VDP_SLOT_REP_TARGET) || src->polcfg_rep_targ_cnt == 0) return true;
  free_policy_targets(dst);
  dst->polcfg_rep_target = static_cast<pol_target_t **>(
      vdpol::mem_calloc(src->polcfg_rep_targ_cnt, sizeof(pol_target_t *)));
  if (dst->polcfg_rep_target == nullptr) {
    __kxfs_logfn(KXLOG_ERROR, "merge_policy: failed to alloc memory.\n");
    return false;
  }
  dst->polcfg_rep_targ_cnt = src->polcfg_rep_targ_cnt;
  for (uint32_t i = 0; i < src->polcfg_rep_targ_cnt; ++i) {
    const pol_target_t *from = src->polcfg_rep_target[i];
    if (from == nullptr) continue;  // a parent's own merge ran out of memory there
    dst->polcfg_rep_target[i] = duplicate_target(from);
    if (dst->polcfg_rep_target[i] == nullptr) {
      __kxfs_logfn(KXLOG_ERROR, "duplicate_target: failed to alloc memory for target.\n");
      return false;
    }
  }
  if (src->polcfg_target_cnt != 0) {
    dst->polcfg_target_names =
        static_cast<char **>(vdpol::mem_calloc(src->polcfg_target_cnt, sizeof(char *)));
    if (dst->polcfg_target_names == nullptr) {
      __kxfs_logfn(KXLOG_ERROR, "merge_policy: failed to alloc memory.\n");
      return false;
    }
    dst->polcfg_target_cnt = src->polcfg_target_cnt;
    for (uint32_t i = 0; i < src->polcfg_target_cnt; ++i)
      if (src->polcfg_target_names[i] != nullptr)
        dst->polcfg_target_names[i] = vdpol::dup_text(src->polcfg_target_names[i]);
  }
  // The child's targets are the parent's whatever the parent's origin.
  dst->polcfg_origin[VDP_SLOT_REP_TARGET] = VDP_ORIGIN_INHERITED;
  return true;
}

}  // namespace

extern "C" void merge_policy(PolicyConfig_t *dst, const PolicyConfig_t *src) {
  if (dst == nullptr || src == nullptr) return;
  VDPOL_STORE_TRACE("Merging from %s\n", src->polcfg_name != nullptr ? src->polcfg_name : "(null)");
  const Merger m{dst, src};
  m.value(VDP_SLOT_AFFINITY, &Config::polcfg_affinity);
  m.text(VDP_SLOT_INGEST_OFF, &Config::polcfg_ingest_sched_str);
  m.bits(keyword(VDP_SLOT_DEDUP));
  m.bits(keyword(VDP_SLOT_DEDUP_FILTER));
  m.value(VDP_SLOT_MAX_SEG_SIZE, &Config::polcfg_max_seg_size);
  m.value(VDP_SLOT_MAX_SEG_AGE, &Config::polcfg_max_seg_age);
  m.value(VDP_SLOT_DEDUP_AGE, &Config::polcfg_dedup_age);
  m.value(VDP_SLOT_DEDUP_MIN_SIZE, &Config::polcfg_dedup_min_size);
  m.value(VDP_SLOT_DEDUP_SEG_SIZE, &Config::polcfg_dedup_seg_size);
  m.value(VDP_SLOT_DEDUP_MIN_ROUND, &Config::polcfg_dedup_min_round);
  m.value(VDP_SLOT_DEDUP_MAX_ROUND, &Config::polcfg_dedup_max_round);
  m.text(VDP_SLOT_DEDUP_SKIP, &Config::polcfg_dedup_regex);
  m.value(VDP_SLOT_DEDUP_PRI, &Config::polcfg_dedup_pri);
  m.text(VDP_SLOT_DEDUP_BFST, &Config::polcfg_dedup_bfst);
  m.value(VDP_SLOT_FENCEPOST_GAP, &Config::polcfg_fencepost_gap);
  m.bits(keyword(VDP_SLOT_OBJS));
  m.text(VDP_SLOT_OBJS_ID, &Config::polcfg_cloud_id);
  m.value(VDP_SLOT_OBJS_AGE, &Config::polcfg_cloud_age);
  m.value(VDP_SLOT_OBJS_MIN_SIZE, &Config::polcfg_cloud_min_size);
  m.value(VDP_SLOT_OBJS_SEG_SIZE, &Config::polcfg_cloud_seg_size);
  m.text(VDP_SLOT_OBJS_SKIP, &Config::polcfg_cloud_regex);
  m.value(VDP_SLOT_OBJS_PRI, &Config::polcfg_cloud_pri);
  m.bits(keyword(VDP_SLOT_TRUNC));
  m.value(VDP_SLOT_TRUNC_AGE, &Config::polcfg_trunc_age);
  m.value(VDP_SLOT_TRUNC_MIN_SIZE, &Config::polcfg_trunc_size);
  m.value(VDP_SLOT_TRUNC_LOW_WATER, &Config::polcfg_trunc_low_water);
  m.value(VDP_SLOT_TRUNC_HIGH_WATER, &Config::polcfg_trunc_high_water);
  m.value(VDP_SLOT_TRUNC_STUB_SIZE, &Config::polcfg_trunc_stub_size);
  m.text(VDP_SLOT_TRUNC_SKIP, &Config::polcfg_trunc_regex);
  m.value(VDP_SLOT_TRUNC_PRI, &Config::polcfg_trunc_pri);
  m.bits(keyword(VDP_SLOT_REP_INPUT));
  m.bits(keyword(VDP_SLOT_REP_OUTPUT));
  m.bits(keyword(VDP_SLOT_REP_SUBTREE));
  m.bits(keyword(VDP_SLOT_REP_DEDUP));
  m.bits(keyword(VDP_SLOT_REP_COMPRESS));
  m.bits(keyword(VDP_SLOT_REP_ENCRYPT));
  m.bits(keyword(VDP_SLOT_REP_REPORT));
  m.value(VDP_SLOT_REP_INLINE_SIZE, &Config::polcfg_rep_inline_size);
  m.value(VDP_SLOT_REP_COPIES, &Config::polcfg_rep_copies);
  m.text(VDP_SLOT_REP_REALIZE, &Config::polcfg_realize);
  m.text(VDP_SLOT_REP_CALLOUT, &Config::polcfg_rep_callout);
  m.text(VDP_SLOT_REP_NAME, &Config::polcfg_rep_name);
  m.text(VDP_SLOT_REP_RELATION, &Config::polcfg_rep_relation);
  m.text(VDP_SLOT_REP_SKIP, &Config::polcfg_rep_regex);
  m.text(VDP_SLOT_REP_OFF, &Config::polcfg_rep_sched_str);
  m.value(VDP_SLOT_REP_PRI, &Config::polcfg_rep_pri);
  m.object_storage_namespace();
  if (!m.targets()) return;
  // A policy's time is that of the newest file along its chain.
  if (src->polcfg_mtime > dst->polcfg_mtime) dst->polcfg_mtime = src->polcfg_mtime;
}

namespace vdpol {

bool record_in_chain(const char **chain, int depth, const char *name, char *msg,
                     size_t msg_size) noexcept {
  if (depth < 0 || depth > VDP_MAX_INHERIT_DEPTH) {
    write_message(msg, msg_size, "%s", "Policy inheritance too deep");
    return false;
  }
  // A policy whose text gives no name is in the chain under the name it
  // was looked up by, which parse_policy_file put there: without it a loop
  // of such policies would be caught only by the depth limit.
  if (chain != nullptr && name != nullptr) chain[depth] = name;
  return true;
}

int inherit_named_parent(dm_fsid_t fsid, PolicyConfig_t *policy, int recurse,
                         const char **inheritance, char *msg, std::size_t msg_size) {
  VDPOL_STORE_TRACE("Performing inherit from %s\n", policy->polcfg_inherit);
  char reason[4096] = "";
  Policy_t *parent = nullptr;
  if (record_in_chain(inheritance, recurse, policy->polcfg_name, reason, sizeof reason))
    parent = _lookup_policy(fsid, nullptr, policy->polcfg_inherit, 0, recurse + 1, inheritance,
                            reason, sizeof reason);
  if (parent == nullptr) {
    if (reason[0] == '\0')
      write_message(msg, msg_size, "Failed to inherit policy %s", policy->polcfg_inherit);
    else
      write_message(msg, msg_size, "%s", reason);
    return -1;
  }
  merge_policy(policy, parent->pol_config);
  release_policy_locked(parent);
  return 0;
}

namespace {

// The chain being loaded and where the parents come from.
struct Lineage {
  dm_fsid_t fsid;
  const char *mount;
  PolicyConfig_t *policy;
  int recurse;
  const char **inheritance;
};

// Merges a parent from the store. A parent that cannot be had is no error:
// the policy then stands on what it has.
void inherit_from_store(const Lineage &line, const char *parent, uint64_t parent_key) {
  char scratch[4096] = "";
  if (!record_in_chain(line.inheritance, line.recurse, line.policy->polcfg_name, scratch,
                       sizeof scratch))
    return;
  Policy_t *found = _lookup_policy(line.fsid, line.mount, parent, parent_key, line.recurse + 1,
                                   line.inheritance, scratch, sizeof scratch);
  if (found == nullptr) return;
  merge_policy(line.policy, found->pol_config);
  release_policy_locked(found);
}

// A policy looked up by name. False when it fails to load.
bool inherit_by_name(const Lineage &line, const char *name, bool had_file, char *err,
                     size_t err_size) {
  PolicyConfig_t *p = line.policy;
  if (p->polcfg_name == nullptr) {
    p->polcfg_name = dup_text(name);
    if (p->polcfg_name == nullptr) {
      write_message(err, err_size, "%s", "memory allocation failure");
      return false;
    }
    p->polcfg_flags |= VDP_FLAG_NAMED;
    p->polcfg_origin[VDP_SLOT_NAME] = VDP_ORIGIN_LOCAL;
  }
  const std::string_view view = name;
  if (view == "default") {
    merge_policy(p, Global_Policy.pol_config);
  } else if (view == "global") {
    VDPOL_STORE_TRACE("Inherit from compiled global policy\n");
    if (!replace_text(&p->polcfg_inherit, "default")) {
      write_message(err, err_size, "%s", "memory allocation failure");
      return false;
    }
    merge_policy(p, Global_Policy.pol_config);
  } else if (view == "config") {
    VDPOL_STORE_TRACE("Inherit from compiled config policy\n");
    p->polcfg_flags &= ~VDP_FLAG_TRUNC;
    merge_policy(p, Config_Policy.pol_config);
  } else if (view == "target") {
    VDPOL_STORE_TRACE("Inherit from compiled target policy\n");
    merge_policy(p, Target_Policy.pol_config);
  } else {
    if (!had_file) return false;  // a named policy exists only as a file
    VDPOL_STORE_TRACE("Inherit from global policy\n");
    inherit_from_store(line, "global", 1);
  }
  return true;
}

// A policy looked up by key.
void inherit_by_key(const Lineage &line, uint64_t key) {
  if (key == 2) {
    inherit_from_store(line, "config", 2);
    line.policy->polcfg_flags &= ~VDP_FLAG_TRUNC;
    line.policy->polcfg_origin[VDP_SLOT_TRUNC] = VDP_ORIGIN_LOCAL;
    return;
  }
  VDPOL_STORE_TRACE("Key based inherit from global policy\n");
  inherit_from_store(line, "global", 1);
}

}  // namespace

bool inherit_implicit_parents(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                              PolicyConfig_t *policy, bool had_file, int recurse,
                              const char **inheritance, char *err, size_t err_size) {
  const Lineage line{fsid, mount, policy, recurse, inheritance};
  if (name != nullptr) return inherit_by_name(line, name, had_file, err, err_size);
  inherit_by_key(line, key);
  return true;
}

}  // namespace vdpol
