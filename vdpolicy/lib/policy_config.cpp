// Life cycle of a PolicyConfig_t: preparing a record for a parse, copying a
// parent's values into a fresh one, and releasing what a record owns.
#include <cerrno>
#include <cstring>

#include "vdpolicy/lib/policy.h"
#include "vdpolicy/lib/policy_internal.h"

namespace vdpol {

void free_steer_entries(PolicyConfig_t *config) noexcept {
  for (steer_entry_t &entry : config->polcfg_cloud_steer_entries) {
    std::free(entry.container);
    entry = steer_entry_t{};
  }
  config->polcfg_cloud_steer_cnt = 0;
}

void free_target(pol_target_t *target) noexcept {
  if (target == nullptr) return;
  std::free(target->raw_target);
  free_entry(target->schedule);
  std::free(target);
}

}  // namespace vdpol

namespace {

using vdpol::dup_text;

// The string fields a record owns, for copying and freeing in one sweep.
constexpr char *PolicyConfig_t::*kOwnedStrings[] = {
    &PolicyConfig_t::polcfg_name,        &PolicyConfig_t::polcfg_inherit,
    &PolicyConfig_t::polcfg_root,        &PolicyConfig_t::polcfg_ingest_sched_str,
    &PolicyConfig_t::polcfg_dedup_regex, &PolicyConfig_t::polcfg_dedup_bfst,
    &PolicyConfig_t::polcfg_cloud_id,    &PolicyConfig_t::polcfg_cloud_container,
    &PolicyConfig_t::polcfg_cloud_regex, &PolicyConfig_t::polcfg_trunc_regex,
    &PolicyConfig_t::polcfg_realize,     &PolicyConfig_t::polcfg_rep_callout,
    &PolicyConfig_t::polcfg_rep_name,    &PolicyConfig_t::polcfg_rep_relation,
    &PolicyConfig_t::polcfg_rep_regex,   &PolicyConfig_t::polcfg_rep_sched_str,
    &PolicyConfig_t::polcfg_mount,
};

// Identity (name, inherit, key, root) and the mount point are never taken
// from a parent.
constexpr char *PolicyConfig_t::*kIdentityStrings[] = {
    &PolicyConfig_t::polcfg_name, &PolicyConfig_t::polcfg_inherit, &PolicyConfig_t::polcfg_root,
    &PolicyConfig_t::polcfg_mount};
constexpr int kFirstIdentitySlot = VDP_SLOT_NAME;
constexpr int kLastIdentitySlot = VDP_SLOT_ROOT;

bool is_identity(char *PolicyConfig_t::*field) {
  for (auto id : kIdentityStrings)
    if (id == field) return true;
  return false;
}

// Copies a string field; a null source stays null. False when out of memory.
bool copy_string(char *&dst, const char *src) {
  if (src == nullptr) return true;
  dst = dup_text(src);
  return dst != nullptr;
}

bool copy_schedule(sched_entry_t *&dst, const sched_entry_t *src) {
  if (src == nullptr) return true;
  dst = static_cast<sched_entry_t *>(vdpol::mem_calloc(1, sizeof *dst));
  if (dst == nullptr) return false;
  *dst = *src;
  dst->next = nullptr;  // only the first entry of a chain is copied
  return true;
}

bool copy_targets(PolicyConfig_t *dst, const PolicyConfig_t *src) {
  if (src->polcfg_rep_targ_cnt > 0) {
    dst->polcfg_rep_target = static_cast<pol_target_t **>(
        vdpol::mem_calloc(src->polcfg_rep_targ_cnt, sizeof(pol_target_t *)));
    if (dst->polcfg_rep_target == nullptr) return false;
    for (uint32_t i = 0; i < src->polcfg_rep_targ_cnt; ++i) {
      const pol_target_t *from = src->polcfg_rep_target[i];
      auto *to = static_cast<pol_target_t *>(vdpol::mem_calloc(1, sizeof(pol_target_t)));
      if (to == nullptr) return false;
      dst->polcfg_rep_target[i] = to;
      dst->polcfg_rep_targ_cnt = i + 1;
      if (from == nullptr) continue;
      std::memcpy(to->target_idx, from->target_idx, sizeof to->target_idx);
      to->target_cnt = from->target_cnt;
      if (!copy_string(to->raw_target, from->raw_target)) return false;
      if (!copy_schedule(to->schedule, from->schedule)) return false;
    }
  }
  if (src->polcfg_target_cnt > 0) {
    dst->polcfg_target_names =
        static_cast<char **>(vdpol::mem_calloc(src->polcfg_target_cnt, sizeof(char *)));
    if (dst->polcfg_target_names == nullptr) return false;
    dst->polcfg_target_cnt = src->polcfg_target_cnt;
    for (uint32_t i = 0; i < src->polcfg_target_cnt; ++i)
      if (!copy_string(dst->polcfg_target_names[i], src->polcfg_target_names[i])) return false;
  }
  return true;
}

bool copy_owned(PolicyConfig_t *dst, const PolicyConfig_t *src) {
  for (auto field : kOwnedStrings)
    if (!is_identity(field) && !copy_string(dst->*field, src->*field)) return false;
  for (int i = 0; i < src->polcfg_cloud_steer_cnt && i < VDP_MAX_STEER_ENTRIES; ++i)
    if (!copy_string(dst->polcfg_cloud_steer_entries[i].container,
                     src->polcfg_cloud_steer_entries[i].container))
      return false;
  return copy_schedule(dst->polcfg_ingest_sched, src->polcfg_ingest_sched) &&
         copy_schedule(dst->polcfg_rep_sched, src->polcfg_rep_sched) && copy_targets(dst, src);
}

}  // namespace

extern "C" {

void init_policy_config(PolicyConfig_t *config) {
  *config = PolicyConfig_t{};
  config->polcfg_version = VDP_POLCFG_VERSION;
  config->polcfg_fencepost_gap = -1;
  config->polcfg_max_seg_size = -1;
  config->polcfg_max_seg_age = -1;
  config->polcfg_ref = 1;
}

int init_policy_config_from(PolicyConfig_t *dst, const PolicyConfig_t *src) {
  init_policy_config(dst);
  // Start from a plain copy of every scalar, then replace each pointer
  // by an owned copy; pointers not yet copied are nulled first so a
  // failure half way frees only what this record owns.
  PolicyConfig_t copy = *src;
  for (auto field : kOwnedStrings) copy.*field = nullptr;
  for (steer_entry_t &entry : copy.polcfg_cloud_steer_entries) entry.container = nullptr;
  copy.polcfg_rep_target = nullptr;
  copy.polcfg_rep_targ_cnt = 0;
  copy.polcfg_target_names = nullptr;
  copy.polcfg_target_cnt = 0;
  copy.polcfg_ingest_sched = copy.polcfg_rep_sched = nullptr;
  copy.polcfg_dedup_regex_split = copy.polcfg_cloud_regex_split = nullptr;
  copy.polcfg_trunc_regex_split = copy.polcfg_rep_regex_split = nullptr;
  copy.polcfg_threads = nullptr;
  copy.polcfg_ref = 1;
  copy.polcfg_mtime = 0;
  copy.polcfg_fsid = 0;
  copy.polcfg_key = 0;
  *dst = copy;
  if (!copy_owned(dst, src)) {
    free_policy_config_contents(dst);
    errno = ENOMEM;
    return -1;
  }
  for (int slot = 0; slot < VDP_NUM_SLOTS; ++slot) {
    bool inherited = src->polcfg_origin[slot] != VDP_ORIGIN_DEFAULT &&
                     (slot < kFirstIdentitySlot || slot > kLastIdentitySlot);
    dst->polcfg_origin[slot] = inherited ? VDP_ORIGIN_INHERITED : VDP_ORIGIN_DEFAULT;
  }
  return 0;
}

void free_policy_targets(PolicyConfig_t *config) {
  if (config == nullptr) return;
  for (uint32_t i = 0; i < config->polcfg_rep_targ_cnt; ++i)
    vdpol::free_target(config->polcfg_rep_target[i]);
  std::free(config->polcfg_rep_target);
  config->polcfg_rep_target = nullptr;
  config->polcfg_rep_targ_cnt = 0;
  for (uint32_t i = 0; i < config->polcfg_target_cnt; ++i)
    std::free(config->polcfg_target_names[i]);
  std::free(config->polcfg_target_names);
  config->polcfg_target_names = nullptr;
  config->polcfg_target_cnt = 0;
}

void free_policy_config_contents(PolicyConfig_t *config) {
  if (config == nullptr) return;
  for (auto field : kOwnedStrings) {
    std::free(config->*field);
    config->*field = nullptr;
  }
  vdpol::free_steer_entries(config);
  free_policy_targets(config);
  free_entry(config->polcfg_ingest_sched);
  free_entry(config->polcfg_rep_sched);
  config->polcfg_ingest_sched = config->polcfg_rep_sched = nullptr;
  for (char **PolicyConfig_t::*split :
       {&PolicyConfig_t::polcfg_dedup_regex_split, &PolicyConfig_t::polcfg_cloud_regex_split,
        &PolicyConfig_t::polcfg_trunc_regex_split, &PolicyConfig_t::polcfg_rep_regex_split}) {
    vdpol::free_string_array(config->*split);
    config->*split = nullptr;
  }
}

}  // extern "C"
