// The compiled-in policies and the life cycle of a PolicyConfig_t: merging,
// freeing, and running out of memory part way.
#include <cstring>
#include <set>

#include "policy_fixture.h"

namespace {

using vdtest::PolicyTest;

std::set<int> LocalSlots(const PolicyConfig_t &cfg) {
  std::set<int> slots;
  for (int i = 0; i < VDP_NUM_SLOTS; ++i) {
    EXPECT_NE(VDP_ORIGIN_INHERITED, cfg.polcfg_origin[i]) << "slot " << i;
    if (cfg.polcfg_origin[i] == VDP_ORIGIN_LOCAL) slots.insert(i);
  }
  return slots;
}

// The ends of every chain set these slots and no others (slot 60 stays
// open although the default rep_copies is 1).
TEST(CompiledPolicies, SetTheirOwnSlotsOnly) {
  EXPECT_EQ((std::set<int>{2,  10, 11, 12, 13, 14, 15, 16, 17, 18, 21, 22,
                           30, 31, 33, 34, 40, 43, 44, 45, 52, 57, 59}),
            LocalSlots(Global_Policy_Config));
  EXPECT_EQ((std::set<int>{2, 12, 13, 22, 30, 33, 34}), LocalSlots(Config_Policy_Config));
  EXPECT_EQ((std::set<int>{2, 50}), LocalSlots(Target_Policy_Config));
}

// ---- Copying and freeing records ------------------------------------------

// A parent fills only what the child left at its default, with owned
// copies, and a boolean only its own bit; what the parent had only by
// default stays open for a later one.
TEST_F(PolicyTest, MergeFillsDefaultSlotsWithOwnedCopies) {
  ASSERT_EQ("OK", ParseKeyed("name=src,inherit=p,root=r,dedup_skip=*.o,trunc_age=1h,"
                             "objs_namespace=1M:a|b,dedup,rep_compress,rep_input=off\n"
                             "rep_target=[@daily] target:/a@h:1,ingest_off=@hourly"));
  PolicyConfig_t child;
  init_policy_config(&child);
  child.polcfg_trunc_age = 7;
  child.polcfg_origin[VDP_SLOT_TRUNC_AGE] = VDP_ORIGIN_LOCAL;
  child.polcfg_flags = VDP_FLAG_NAMED;
  child.polcfg_rep_flags = VDP_REP_ENCRYPT;
  child.polcfg_origin[VDP_SLOT_REP_ENCRYPT] = VDP_ORIGIN_LOCAL;
  cfg_.polcfg_mtime = 100;
  merge_policy(&child, &cfg_);
  // Identity is never inherited; the child's own value stays.
  EXPECT_EQ(nullptr, child.polcfg_name);
  EXPECT_EQ(nullptr, child.polcfg_root);
  EXPECT_EQ(7u, child.polcfg_trunc_age);
  EXPECT_EQ(VDP_FLAG_NAMED | VDP_FLAG_DEDUP, child.polcfg_flags);
  EXPECT_EQ(VDP_REP_ENCRYPT | VDP_REP_COMPRESS | VDP_REP_INPUT_OFF, child.polcfg_rep_flags);
  EXPECT_EQ(VDP_ORIGIN_INHERITED, child.polcfg_origin[VDP_SLOT_DEDUP_SKIP]);
  EXPECT_EQ(VDP_ORIGIN_INHERITED, child.polcfg_origin[VDP_SLOT_REP_TARGET]);
  EXPECT_EQ(100, child.polcfg_mtime);
  ASSERT_NE(nullptr, child.polcfg_dedup_regex);
  EXPECT_NE(cfg_.polcfg_dedup_regex, child.polcfg_dedup_regex);
  EXPECT_STREQ("b", child.polcfg_cloud_steer_entries[1].container);
  ASSERT_EQ(1u, child.polcfg_rep_targ_cnt);
  EXPECT_NE(cfg_.polcfg_rep_target[0]->schedule, child.polcfg_rep_target[0]->schedule);
  EXPECT_STREQ("target:/a@h:1", child.polcfg_target_names[0]);
  // A later parent fills the slot the first left at its default.
  PolicyConfig_t later;
  init_policy_config(&later);
  later.polcfg_trunc_regex = const_cast<char *>("*.tmp");
  later.polcfg_origin[VDP_SLOT_TRUNC_SKIP] = VDP_ORIGIN_LOCAL;
  merge_policy(&child, &later);
  EXPECT_STREQ("*.tmp", child.polcfg_trunc_regex);
  EXPECT_STREQ("*.o", child.polcfg_dedup_regex);
  free_policy_config_contents(&child);
}

TEST_F(PolicyTest, FreeingTwiceOrNullIsHarmless) {
  ASSERT_EQ("OK", Parse("dedup_bfst=x,rep_target=target:/a@h:1"));
  free_policy_config_contents(&cfg_);
  free_policy_config_contents(&cfg_);
  free_policy_config_contents(nullptr);
  EXPECT_EQ(0u, cfg_.polcfg_target_cnt);
}

// ---- Out of memory: every failed allocation fails cleanly -----------------

TEST_F(PolicyTest, EachAllocationOfAParseMayFail) {
  // No final line feed: the last line is parsed from a copy.
  const std::string text =
      "name=n,root=r,affinity=a,dedup_skip=x,rep_realize=/x/\n"
      "objs_namespace=1M:1G:a|b|c,rep_off=[@daily]\n"
      "rep_target=[@daily] target:/a@h:1 target:/b@h:2\nrep_target=target:/c@h:3";
  int failures = 0;
  for (int n = 0; n < 100; ++n) {
    Reset();
    cfg_.polcfg_mount = strdup("/m");
    vdpol::alloc_failure_countdown = n;
    std::string msg = Parse(text, 1);
    vdpol::alloc_failure_countdown = -1;
    if (msg == "OK") break;
    EXPECT_EQ("memory allocation failure", msg) << "failing allocation " << n;
    ++failures;
  }
  EXPECT_GE(failures, 20);
  EXPECT_STREQ("/m/__KXFS_Handle.r", cfg_.polcfg_root);
}

// A merge that runs out of memory stops and leaves a record that frees
// cleanly (the sanitizer presets check for leaks).
TEST_F(PolicyTest, MergeOutOfMemoryStopsCleanly) {
  ASSERT_EQ("OK", Parse("dedup_skip=x,objs_namespace=1M:a|b,rep_target=[@daily] "
                        "target:/a@h:1 target:/b@h:2"));
  for (int n = 0; n < 12; ++n) {
    PolicyConfig_t child;
    init_policy_config(&child);
    vdpol::alloc_failure_countdown = n;
    merge_policy(&child, &cfg_);
    vdpol::alloc_failure_countdown = -1;
    free_policy_config_contents(&child);
  }
}

}  // namespace
