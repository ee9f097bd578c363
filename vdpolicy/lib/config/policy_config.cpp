// Life cycle of a PolicyConfig_t: preparing a record for a parse and
// releasing what a record owns.
#include <cerrno>
#include <cstring>

#include "vdpolicy/lib/config/policy.h"
#include "vdpolicy/lib/config/policy_memory.h"

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

// The string fields a record owns, freed in one sweep.
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
