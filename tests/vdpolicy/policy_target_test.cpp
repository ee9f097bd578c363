// Object-storage steering namespaces and replication targets in policy texts.
#include <utility>

#include "policy_fixture.h"

namespace {

using vdtest::PolicyTest;

std::string TargetNames(const PolicyConfig_t &cfg) {
  std::string out;
  for (uint32_t i = 0; i < cfg.polcfg_target_cnt; ++i)
    out += (i ? " " : "") + std::string(cfg.polcfg_target_names[i]);
  return out;
}

std::string Steering(const PolicyConfig_t &cfg) {
  std::string out;
  for (int i = 0; i < cfg.polcfg_cloud_steer_cnt; ++i) {
    const steer_entry_t &e = cfg.polcfg_cloud_steer_entries[i];
    out +=
        (i ? " " : "") + std::to_string(e.file_size) + "=" + (e.container ? e.container : "(null)");
  }
  return out;
}

// ---- Steering namespaces --------------------------------------------------

// n bounds give n + 1 entries, the last without a bound; namespaces fill
// them in order and missing ones leave entries empty.
TEST_F(PolicyTest, SteeringBoundsAndNamespacesFillTheTable) {
  const std::pair<const char *, const char *> cases[] = {
      {"1M:1G:small|medium|large", "1048576=small 1073741824=medium 0=large"},
      {"4k:8k:x", "4096=x 8192=(null) 0=(null)"},
      {"1:2:3:4:5:6:7:8:a|b|c|d|e|f|g|h|i", "1=a 2=b 3=c 4=d 5=e 6=f 7=g 8=h 0=i"},
  };
  for (const auto &[spec, steering] : cases) {
    Reset();
    EXPECT_EQ("OK", Parse(std::string("objs_namespace=") + spec)) << spec;
    EXPECT_EQ(steering, Steering(cfg_)) << spec;
    EXPECT_STREQ(spec, cfg_.polcfg_cloud_container);
  }
}

TEST_F(PolicyTest, PlainNamespaceReplacesAnInheritedSteeringTable) {
  EXPECT_EQ("OK", Parse("was_namespace=1k:a|b"));
  cfg_.polcfg_origin[VDP_SLOT_OBJS_NAMESPACE] = VDP_ORIGIN_INHERITED;
  EXPECT_EQ("OK", Parse("objs_namespace=bucket-1"));
  EXPECT_EQ(0, cfg_.polcfg_cloud_steer_cnt);
  EXPECT_EQ(nullptr, cfg_.polcfg_cloud_steer_entries[0].container);
  EXPECT_STREQ("bucket-1", cfg_.polcfg_cloud_container);
}

// ---- Replication targets ------------------------------------------------------

// A target keeps its whole text and its optional schedule. The text's
// first rep_target drops the inherited ones; each adds its words to one
// name list that its indexes point into.
TEST_F(PolicyTest, EachTargetAddsAndTheFirstReplacesInherited) {
  EXPECT_EQ("OK", Parse("rep_target=target:/old@h:1"));
  cfg_.polcfg_origin[VDP_SLOT_REP_TARGET] = VDP_ORIGIN_INHERITED;
  EXPECT_EQ("OK", Parse("rep_target=[0 1 * * *] target://fs1@h:7000\n"
                        "rep_target=target:/b@h:2\ttarget:/c@:"));
  ASSERT_EQ(2u, cfg_.polcfg_rep_targ_cnt);
  const pol_target_t *first = cfg_.polcfg_rep_target[0];
  EXPECT_STREQ("[0 1 * * *] target://fs1@h:7000", first->raw_target);
  ASSERT_NE(nullptr, first->schedule);
  EXPECT_TRUE(sched_bit_test(first->schedule->hour, 1));
  const pol_target_t *second = cfg_.polcfg_rep_target[1];
  EXPECT_EQ(nullptr, second->schedule);
  ASSERT_EQ(2u, second->target_cnt);
  EXPECT_STREQ("target:/b@h:2", cfg_.polcfg_target_names[second->target_idx[0]]);
  EXPECT_STREQ("target:/c@:", cfg_.polcfg_target_names[second->target_idx[1]]);
  EXPECT_EQ("target://fs1@h:7000 target:/b@h:2 target:/c@:", TargetNames(cfg_));
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_REP_TARGET]);
}

TEST_F(PolicyTest, AtMostEightTargetWordsOverAllTargets) {
  std::string five, four;
  for (int i = 0; i < 5; ++i) five += " target:/p" + std::to_string(i) + "@h:1";
  for (int i = 0; i < 4; ++i) four += " target:/q" + std::to_string(i) + "@h:1";
  EXPECT_EQ("Too many targets to policy", Parse("rep_target=" + five + "\nrep_target=" + four));
  EXPECT_EQ(1u, cfg_.polcfg_rep_targ_cnt);
  EXPECT_EQ(5u, cfg_.polcfg_target_cnt);
}

// A refused steering spec or target leaves nothing of itself behind.
TEST_F(PolicyTest, MalformedSteeringAndTargetsAreRefusedWithTheirMessages) {
  const std::string ns = "objs_namespace=", rt = "rep_target=";
  const std::pair<std::string, std::string> cases[] = {
      {ns + "1:2:3:4:5:6:7:8:9:a", "Too many steering entries 9 defined, max 8 is allowed.\n"},
      {ns + "1M:1M:a", "OBJS steering file size should be in increasing order.\n"},
      {ns + "1M:a|b|c",
       "OBJS steering namespaces doesn't match the number of steering file size ranges.\n"},
      {ns + "1X:a", "faild to parse steering namespaces: 1X\n"},
      {ns + "1M:huge:a", "faild to parse steering namespaces: huge\n"},
      {rt + "target://fs1@host", "Bad host specifier in target: 'target://fs1@host'"},
      {rt + "target:/fs1", "No host specifier in target: 'target:/fs1'"},
      {rt + "target:/a:b@h:1", "No host specifier in target: 'target:/a:b@h:1'"},
      {rt + "target:/a@", "Bad host specifier in target: 'target:/a@'"},
      {rt + "target:/a@@h:1", "Bad host specifier in target: 'target:/a@@h:1'"},
      {rt + "target:/a@h:1:2", "Bad port field after ':' in target: 'target:/a@h:1:2'"},
      {rt + "Target:/a@h:1", "Target prefix missing: 'Target:/a@h:1'"},
      {rt + "target:/a@h:1 host:2", "Target prefix missing: 'host:2'"},
      {rt + "[0 1 * * * target:/a@h:1", "Malformed policy target"},
      {rt, "Malformed policy target"},
      {rt + "[61 * * * *] target:/a@h:1", "Bad schedule in policy target: '61 * * * *'"},
  };
  for (const auto &[text, message] : cases) {
    Reset();
    EXPECT_EQ(message, Parse(text)) << text;
    EXPECT_EQ(0, cfg_.polcfg_cloud_steer_cnt) << text;
    EXPECT_EQ(nullptr, cfg_.polcfg_cloud_container) << text;
    EXPECT_EQ(0u, cfg_.polcfg_rep_targ_cnt) << text;
    EXPECT_EQ(0u, cfg_.polcfg_target_cnt) << text;
  }
}

}  // namespace
