// The policy store under the simulator: which file a key or a name finds,
// what a missing, truncated or broken file gives, inheritance as a loaded
// record shows it, chains that loop or run too deep, and when the cache
// reads a file again.
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "policy_fixture.h"

namespace {

using vdtest::PolicyStoreTest;

// ---- Which file a lookup reads --------------------------------------------

TEST_F(PolicyStoreTest, ReservedKeysAndKeyZeroLoadNamedPolicies) {
  Write("global", "dedup_pri=11\n");
  Write("target", "rep_pri=33\n");
  ASSERT_EQ("OK", Load(1));
  EXPECT_STREQ("global", record->vdp_name);
  EXPECT_EQ(11u, record->vdp_dedup_pri);
  ASSERT_EQ("OK", Load(0));  // key 0 without a name is "global" too
  EXPECT_EQ(11u, record->vdp_dedup_pri);
  // "config" never truncates, whatever its file says, and inherits the
  // compiled one's -1 values.
  Write("config", "trunc=on,trunc_pri=9\n");
  ASSERT_EQ("OK", Load(2));
  EXPECT_STREQ("config", record->vdp_name);
  EXPECT_EQ(VDOPT_FALSE, record->vdp_trunc_onoff);
  EXPECT_EQ(9u, record->vdp_trunc_pri);
  EXPECT_EQ(-1, record->vdp_fencepost_gap);
  ASSERT_EQ("OK", Load(3));
  EXPECT_EQ(33u, record->vdp_rep_pri);
  EXPECT_EQ(-1, record->vdp_rep_input_ctrl);  // replication input disabled
  Write("mine", "trunc_pri=44\n");
  ASSERT_EQ("OK", Load(0, "mine"));
  EXPECT_EQ(44u, record->vdp_trunc_pri);
}

TEST_F(PolicyStoreTest, KeyNamesFindTheKeyFile) {
  Write("key_7", "dedup_pri=7\n");
  Policy_t *p = lookup_policy(fsid(), nullptr, "key_7", 0);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(7u, p->pol_config->polcfg_dedup_pri);
  release_policy(p);
  EXPECT_EQ(nullptr, lookup_policy(fsid(), nullptr, "key_ab", 0));
  EXPECT_EQ("", LastError());  // no message for a malformed key name
}

TEST_F(PolicyStoreTest, MissingOrBlocklessFilesFailOnlyForKeysFromFour) {
  EXPECT_EQ("2: VDPOL: ERROR(2): lookup_policy: key = 7", Load(7));
  EXPECT_EQ("Policy file for key 7 does not exist.\n\n", LastError());
  ASSERT_EQ("OK", Load(1));  // no "global" file: the compiled defaults
  EXPECT_EQ(31536000u, record->vdp_trunc_min_age);
  EXPECT_EQ("2: VDPOL: ERROR(2): lookup_policy: key = 0", Load(0, "nofile"));
  // A metadata-only restore leaves policy files with a size and no blocks.
  ASSERT_TRUE(fs.MakeFile(".rep_private/config/key_8", 100, false));
  ASSERT_TRUE(fs.MakeFile(".rep_private/config/named", 100, false));
  EXPECT_EQ("2: VDPOL: ERROR(2): lookup_policy: key = 8", Load(8));
  EXPECT_EQ("Policy file for key 8 is truncated.\n\n", LastError());
  Load(0, "named");
  EXPECT_EQ("Policy file for policy named  is truncated.\n\n", LastError());
}

// Anything but plain text is refused with a message naming the file, and
// nothing blocks: a FIFO in a policy's place would stop every lookup for
// good, and a NUL or a device would read as a weaker policy.
TEST_F(PolicyStoreTest, FilesThatAreNotPlainTextAreRefused) {
  const std::string dir = fs.Path(".rep_private/config");
  Write("key_11", std::string(64, '\0'));
  Write("key_12", std::string("objs=on,\0trunc=on\n", 18));
  ASSERT_EQ(0, symlink("/dev/zero", (dir + "/key_13").c_str()));
  ASSERT_EQ(0, mkfifo((dir + "/key_14").c_str(), 0600));
  const struct {
    vdp_key_t key;
    std::string reason;
  } cases[] = {
      {11, "key_11 holds a NUL byte at offset 0.\n"},
      {12, "key_12 holds a NUL byte at offset 8.\n"},
      {13, "key_13 is not a regular file.\n"},
      {14, "key_14 is not a regular file.\n"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ("2: VDPOL: ERROR(2): lookup_policy: key = " + std::to_string(c.key), Load(c.key));
    EXPECT_EQ("Policy file " + dir + "/" + c.reason + "\n", LastError()) << c.key;
  }
}

TEST_F(PolicyStoreTest, SyntaxAndValidationFailuresAreLoggedAndLoadNothing) {
  Write("key_9", "dedup=on\ndedup_pri=1000\n");
  Load(9);
  EXPECT_EQ(
      "Policy syntax error line 2 for key: 9: Parameter 'dedup_pri' (1000) out of range, "
      "min 0 max 999\n",
      LastError());
  Write("key_10", "name=p10,trunc_low_water=50,trunc_high_water=50\n");
  Load(10);
  EXPECT_EQ(
      "Policy 'p10' failed validation:\nReason: the high watermark must be greater than the "
      "low watermark\nParams: inherit=NULL root=NULL\n",
      LastError());
  // Nothing half-inserted: neither policy is in the cache.
  for (uint64_t key : {9u, 10u})
    for (Policy_t *p = policy_hash[key]; p != nullptr; p = p->pol_state->polst_next)
      EXPECT_NE(key, p->pol_config->polcfg_key);
}

// ---- Inheritance as a loaded record shows it ------------------------------

TEST_F(PolicyStoreTest, NearestDefinitionWinsThenGlobalFileThenCompiledDefaults) {
  Write("global", "trunc_age=1d,dedup_pri=1\n");
  Write("parent", "trunc_age=2h,dedup_pri=2\n");
  Write("key_30", "dedup\n");
  Write("key_31", "inherit=parent,dedup_pri=3\n");
  ASSERT_EQ("OK", Load(30));
  const Vdp_t &r = *record;
  EXPECT_EQ(30u, r.vdp_key);
  EXPECT_EQ(VDOPT_TRUE, r.vdp_dedup_onoff);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, r.vdp_origin[VDP_SLOT_DEDUP]);
  EXPECT_EQ(86400u, r.vdp_trunc_min_age);  // the file system's "global"
  EXPECT_EQ(VDP_ORIGIN_INHERITED, r.vdp_origin[VDP_SLOT_TRUNC_AGE]);
  EXPECT_EQ(4096u, r.vdp_dedup_min_size);  // the compiled defaults
  EXPECT_STREQ("localhost", r.vdp_dedup_bfst);
  // A slot no policy along the chain sets stays at its default.
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, r.vdp_origin[VDP_SLOT_REP_COPIES]);
  // "global", first loaded as the key policy's parent, is a key-0 policy.
  ASSERT_EQ("OK", Load(1));
  EXPECT_EQ(0u, record->vdp_key);
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
  Write("key_36", "rep_output,rep_target=target:/a@h:1,rep_inline_size=64k\n");
  ASSERT_EQ("OK", Load(36));
  EXPECT_EQ(65536u, record->vdp_trunc_min_size);
  // Blackout windows are compiled when the policy is loaded.
  Write("key_37", "ingest_off=[bogus window]\n");
  Load(37);
  EXPECT_EQ("Bad ingest blackout window\n", LastError());
  Write("key_38", "rep_off=@hourly\n");
  BumpDirTime();
  ASSERT_EQ("OK", Load(38));
  EXPECT_STREQ("@hourly", record->vdp_rep_sched_str);
}

// ---- Inheritance chains that cannot end --------------------------------------

TEST_F(PolicyStoreTest, CyclesAndChainsDeeperThanFifteenFail) {
  Write("key_11", "inherit=a\n");
  Write("a", "inherit=b\n");
  Write("b", "inherit=a\n");
  Load(11);
  EXPECT_EQ("Cycle detected in policy inheritance\n", LastError());

  // key_12 -> p1 -> ... -> p15 loads (p15 is at depth 15); one more fails.
  Write("key_12", "inherit=p1\n");
  for (int i = 1; i < 15; ++i) Write("p" + std::to_string(i), "inherit=p" + std::to_string(i + 1));
  Write("p15", "dedup_pri=15\n");
  ASSERT_EQ("OK", Load(12));
  EXPECT_EQ(15u, record->vdp_dedup_pri);
  free_policy_caches();
  Write("p15", "inherit=p16\n");
  Write("p16", "dedup_pri=16\n");
  Load(12);
  EXPECT_EQ("Policy inheritance too deep\n", LastError());
}

// ---- The cache ----------------------------------------------------------------

TEST_F(PolicyStoreTest, EachFileIsParsedOncePerDirectoryChange) {
  Write("key_20", "dedup_pri=1\n");
  Write("key_21", "dedup_pri=2\n");
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ("OK", Load(20));
    ASSERT_EQ("OK", Load(21));
  }
  EXPECT_EQ(3, Parses());  // key_20, key_21 and the "global" they inherit

  // Rewritten in place, the directory's time stands: the cached text stays.
  Write("key_20", "dedup_pri=5\n");
  ASSERT_EQ("OK", Load(20));
  EXPECT_EQ(1u, record->vdp_dedup_pri);
  EXPECT_EQ(3, Parses());

  // A file created in the directory makes every policy be read again.
  Write("unrelated", "");
  BumpDirTime();
  ASSERT_EQ("OK", Load(20));
  EXPECT_EQ(5u, record->vdp_dedup_pri);
  EXPECT_EQ(5, Parses());
}

TEST_F(PolicyStoreTest, StalePolicyIsReadAgainWhileHeldReferencesStayValid) {
  Write("key_22", "dedup_pri=1\n");
  Policy_t *held = lookup_policy(fsid(), nullptr, nullptr, 22);
  ASSERT_NE(nullptr, held);
  Write("key_22", "dedup_pri=2\n");  // in place: not noticed by itself
  stale_policy(fsid(), 22, nullptr);
  Policy_t *fresh = lookup_policy(fsid(), nullptr, nullptr, 22);
  ASSERT_NE(nullptr, fresh);
  EXPECT_EQ(2u, fresh->pol_config->polcfg_dedup_pri);
  EXPECT_EQ(1u, held->pol_config->polcfg_dedup_pri);
  release_policy(held);
  release_policy(fresh);

  mark_policy_cache_stale(fsid());
  Write("key_22", "dedup_pri=3\n");
  ASSERT_EQ("OK", Load(22));
  EXPECT_EQ(3u, record->vdp_dedup_pri);
}

// The cloud filter is borrowed from the cache: the record's pointer is the
// cached configuration's own, and it outlives the load's reference.
TEST_F(PolicyStoreTest, CloudFilterIsBorrowedFromTheCache) {
  Write("key_23", "objs_skip=*.tmp\n");
  ASSERT_EQ("OK", Load(23));
  Policy_t *p = lookup_policy(fsid(), nullptr, nullptr, 23);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(p->pol_config->polcfg_cloud_regex, record->vdp_cloud_regex);
  release_policy(p);
}

// ---- Broken reference counts -------------------------------------------------

TEST(PolicyReferenceTest, ReleasingAnUnreferencedPolicyPanics) {
  vdtest::ChildResult r = vdtest::RunInChild([] {
    Policy_t policy{};
    release_policy(&policy);
  });
  EXPECT_TRUE(r.killed_by(SIGABRT)) << r.status;
  EXPECT_NE(std::string::npos,
            r.err.find("ASSERT failed \"policy->pol_ref > 0\" file vdpolicy/lib/policy, line"))
      << r.err;
}

}  // namespace
