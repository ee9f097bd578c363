// Inheritance as a loaded summary record shows it: the nearest definition
// wins, origins say where each value came from, and the derived values.
#include "policy_fixture.h"

namespace {

using vdtest::PolicyStoreTest;

TEST_F(PolicyStoreTest, KeyPolicyFillsFromGlobalFileThenCompiledDefaults) {
  Write("global", "trunc_age=1d\n");
  Write("key_30", "dedup\n");
  ASSERT_EQ("OK", Load(30));
  const Vdp_t &r = *record;
  EXPECT_EQ(30u, r.vdp_key);
  EXPECT_EQ(VDOPT_TRUE, r.vdp_dedup_onoff);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, r.vdp_origin[VDP_SLOT_DEDUP]);
  EXPECT_EQ(86400u, r.vdp_trunc_min_age);  // the file system's "global"
  EXPECT_EQ(VDP_ORIGIN_INHERITED, r.vdp_origin[VDP_SLOT_TRUNC_AGE]);
  EXPECT_EQ(4096u, r.vdp_dedup_min_size);  // the compiled defaults
  EXPECT_EQ(VDP_ORIGIN_INHERITED, r.vdp_origin[VDP_SLOT_DEDUP_MIN_SIZE]);
  EXPECT_STREQ("localhost", r.vdp_dedup_bfst);
  // Slots no policy along the chain set stay at their default.
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, r.vdp_origin[VDP_SLOT_TRUNC_SKIP]);
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, r.vdp_origin[VDP_SLOT_REP_COPIES]);
  // "global", first loaded as the key policy's parent, is a key-0 policy.
  ASSERT_EQ("OK", Load(1));
  EXPECT_EQ(0u, record->vdp_key);
}

TEST_F(PolicyStoreTest, NearestDefinitionWins) {
  Write("global", "trunc_age=1d,dedup_pri=1\n");
  Write("parent", "trunc_age=2h,dedup_pri=2\n");
  Write("key_31", "inherit=parent,dedup_pri=3\n");
  ASSERT_EQ("OK", Load(31));
  EXPECT_EQ(7200u, record->vdp_trunc_min_age);
  EXPECT_EQ(3u, record->vdp_dedup_pri);
  EXPECT_STREQ("parent", record->vdp_inherit);
  Write("key_32", "inherit=missing\n");
  BumpDirTime();
  EXPECT_EQ("2: VDPOL: ERROR(2): lookup_policy: key = 32", Load(32));
}

TEST_F(PolicyStoreTest, TargetsAreInheritedWholeOrNotAtAll) {
  Write("two", "rep_target=target:/a@h:1,rep_target=[@daily] target:/b@h:2\n");
  Write("key_33", "inherit=two\n");
  Write("key_34", "dedup\n");
  ASSERT_EQ("OK", Load(33));
  ASSERT_NE(nullptr, record->vdp_rep_target_first);
  EXPECT_STREQ("target:/a@h:1", record->vdp_rep_target_first->vdp_raw_target);
  ASSERT_NE(nullptr, record->vdp_rep_target_first->vdp_target_next);
  EXPECT_STREQ("[@daily] target:/b@h:2",
               record->vdp_rep_target_first->vdp_target_next->vdp_raw_target);
  EXPECT_EQ(VDP_ORIGIN_INHERITED, record->vdp_origin[VDP_SLOT_REP_TARGET]);
  ASSERT_EQ("OK", Load(34));
  EXPECT_EQ(nullptr, record->vdp_rep_target_first);
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, record->vdp_origin[VDP_SLOT_REP_TARGET]);
}

TEST_F(PolicyStoreTest, LoadDerivesValuesAndCompilesWindows) {
  Write("key_35", "dedup,dedup_min_size=8k,trunc_min_size=4k\n");
  ASSERT_EQ("OK", Load(35));
  EXPECT_EQ(8192u, record->vdp_trunc_min_size);
  EXPECT_EQ(VDOPT_TRUE, record->vdp_rep_dedup_onoff);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, record->vdp_origin[VDP_SLOT_REP_DEDUP]);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, record->vdp_origin[VDP_SLOT_REP_INLINE_SIZE]);
  // Replication output raises the minimum to the inline size.
  Write("key_36", "rep_output,rep_target=target:/a@h:1,rep_inline_size=64k,rep_realize=/a/b//\n");
  ASSERT_EQ("OK", Load(36));
  EXPECT_EQ(65536u, record->vdp_trunc_min_size);
  EXPECT_STREQ("/a/b", record->vdp_rep_realize);
  // Blackout windows are compiled when the policy is loaded.
  Write("key_37", "ingest_off=[bogus window]\n");
  Load(37);
  EXPECT_EQ("Bad ingest blackout window\n", LastError());
  Write("key_38", "rep_off=@hourly\n");
  BumpDirTime();
  ASSERT_EQ("OK", Load(38));
  EXPECT_STREQ("@hourly", record->vdp_rep_sched_str);
}

}  // namespace
