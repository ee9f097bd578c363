// The three policies compiled into the library. They end every inheritance
// chain, so they are built at compile time (constinit): no start-up order
// can observe them half made. Their strings are static text, which is why
// these records must never go through free_policy_config_contents.
#include <initializer_list>

#include "vdpolicy/lib/config/policy.h"

namespace {

char kDefaultName[] = "default";
char kConfigName[] = "config";
char kTargetName[] = "target";
char kGlobalName[] = "global";
// The blockpool server runs on the policy engine's own machine by default.
char kLoopbackHost[] = "localhost";

constexpr int64_t k16MiB = 16LL << 20;
constexpr int64_t k1GiB = 1LL << 30;

constexpr void mark_local(PolicyConfig_t &cfg, std::initializer_list<int> slots) {
  for (int slot : slots) cfg.polcfg_origin[slot] = VDP_ORIGIN_LOCAL;
}

constexpr PolicyConfig_t make_default() {
  PolicyConfig_t cfg{};
  cfg.polcfg_version = VDP_POLCFG_VERSION;
  cfg.polcfg_name = kDefaultName;
  cfg.polcfg_fencepost_gap = k16MiB;
  cfg.polcfg_max_seg_size = k1GiB;
  cfg.polcfg_max_seg_age = 300;
  cfg.polcfg_dedup_age = 60;
  cfg.polcfg_dedup_min_size = 4096;
  cfg.polcfg_dedup_seg_size = 1ULL << 30;
  cfg.polcfg_dedup_min_round = 8ULL << 20;
  cfg.polcfg_dedup_max_round = 256ULL << 20;
  cfg.polcfg_dedup_bfst = kLoopbackHost;
  cfg.polcfg_trunc_age = 31536000;  // 365 days
  cfg.polcfg_rep_inline_size = 4096;
  cfg.polcfg_rep_copies = 1;
  cfg.polcfg_flags = VDP_FLAG_NAMED;
  cfg.polcfg_rep_flags = VDP_REP_REPORT;
  cfg.polcfg_ref = 1;
  // The on/off switches and watermarks are marked although they hold 0: a
  // policy inheriting from here has them explicitly off. Slot 60 stays
  // DEFAULT although rep_copies is 1, so a later parent can still set it.
  mark_local(cfg, {2,  10, 11, 12, 13, 14, 15, 16, 17, 18, 21, 22,
                   30, 31, 33, 34, 40, 43, 44, 45, 52, 57, 59});
  return cfg;
}

constexpr PolicyConfig_t make_config() {
  PolicyConfig_t cfg{};
  cfg.polcfg_version = VDP_POLCFG_VERSION;
  cfg.polcfg_name = kConfigName;
  cfg.polcfg_inherit = kGlobalName;
  cfg.polcfg_fencepost_gap = -1;
  cfg.polcfg_max_seg_size = -1;
  cfg.polcfg_max_seg_age = -1;
  cfg.polcfg_flags = VDP_FLAG_NAMED;
  mark_local(cfg, {2, 12, 13, 22, 30, 33, 34});
  return cfg;
}

constexpr PolicyConfig_t make_target() {
  PolicyConfig_t cfg{};
  cfg.polcfg_version = VDP_POLCFG_VERSION;
  cfg.polcfg_name = kTargetName;
  cfg.polcfg_inherit = kGlobalName;
  cfg.polcfg_flags = VDP_FLAG_NAMED;
  cfg.polcfg_rep_flags = VDP_REP_INPUT_DISABLED;
  mark_local(cfg, {2, 50});
  return cfg;
}

}  // namespace

extern "C" {
constinit PolicyConfig_t Global_Policy_Config = make_default();
constinit PolicyConfig_t Config_Policy_Config = make_config();
constinit PolicyConfig_t Target_Policy_Config = make_target();
}
