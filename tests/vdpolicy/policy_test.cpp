// parse_policy_string as a policy author meets it: lines and separators,
// value syntaxes, ranges, duplicates and the keywords with special values.
#include <cstring>
#include <utility>

#include "policy_fixture.h"

namespace {

using vdtest::PolicyTest;

// ---- Lines, separators and syntax errors ----------------------------------

// Each row is a policy text and the one message it gets: syntax errors name
// the line and the cause; keywords with special values give their own.
TEST_F(PolicyTest, EachRefusalHasItsMessage) {
  const std::string at = "Policy syntax error line ";
  const struct {
    std::string text, message;
    uint64_t key = 5;
    int do_inherit = 0;
  } cases[] = {
      {"# policy\r\ndedup=on\r\ntrunc=on\r\n", at + "2 for key: 5: Unrecognized option: '\r'"},
      // Blank lines count in line numbers.
      {"\n\ndedup=on\n\ntrunc=maybe\n",
       at + "5 for key: 5: Unrecognized boolean value in 'trunc=maybe'"},
      {"rep_input=maybe",
       at + "1 for key: 5: Unknown choice enumerated in option 'rep_input=maybe'; "
            "Expected: {on,true|off,false|disabled}"},
      {"rep_copies=17",
       at + "1 for key: 5: Parameter 'rep_copies' (17) out of range, min 0 max 16"},
      {"trunc_low_water=101",
       at + "1 for key: 5: Parameter 'trunc_low_water' (101) out of range, min 0 max 100"},
      // A reason cut to the parser's 511 characters loses its last one.
      {std::string(600, 'x'), at + "1 for key: 5: Unrecognized option: '" + std::string(488, 'x')},
      {"name=pol\nbogus\n", at + "2 for name: pol: Unrecognized option: 'bogus'", 0},
      {"bogus", at + "1 for name: (null): Unrecognized option: 'bogus'", 0},
      // The option is left unset.
      {"name=" + std::string(32, 'n'), "policy name too long"},
      {"key=43", "Policy file key 5 doesn't match key option value 43"},
      {"key=0", "Option 'key' not allowed", 0},
      {"affinity=abcdefghi", "Affinity value must be 8 chars of less"},
      {"rep_off=[0 8 * * *", "Bad schedule specifier"},
      {"inherit=parent,dedup", "Failed to inherit policy parent", 0, 1},
  };
  for (const auto &c : cases) {
    Reset();
    cfg_.polcfg_key = c.key;
    EXPECT_EQ(c.message, Parse(c.text, c.do_inherit)) << c.text;
    // Only the keyed texts have no "name=" that would be stored.
    EXPECT_TRUE(c.key == 0 || cfg_.polcfg_name == nullptr) << c.text;
    EXPECT_EQ(nullptr, cfg_.polcfg_rep_sched_str) << c.text;
  }
}

TEST_F(PolicyTest, SyntaxErrorRaisesOneRasEventWithoutOptionDetail) {
  EXPECT_NE("OK", ParseKeyed("bogus\n"));
  ASSERT_EQ(1u, Events().size());
  const std::string &ev = Events()[0];
  EXPECT_EQ(0u, ev.find("SL_EVT_REP_DEDUPE_COMM|")) << ev;
  EXPECT_NE(std::string::npos, ev.find("Policy syntax error line 1 for key: 5")) << ev;
  EXPECT_EQ(std::string::npos, ev.find("Unrecognized")) << ev;
}

// The text is bounded by its length, not by a NUL; the message buffer may
// be absent or too small.
TEST_F(PolicyTest, CallerBuffersAreRespected) {
  std::string text = "dedup=on,trunc=on";
  char err[64] = "";
  // Only "dedup=on" is inside the length: no terminator follows it.
  ASSERT_EQ(0, parse_policy_string(7, &cfg_, text.data(), 8, 0, 0, nullptr, err, sizeof err));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags);
  EXPECT_EQ(0, parse_policy_string(7, &cfg_, nullptr, 0, 0, 0, nullptr, err, sizeof err));
  text = "bogus";
  EXPECT_EQ(-1, parse_policy_string(7, &cfg_, text.data(), text.size(), 0, 0, nullptr, nullptr, 0));
  char small[10];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(-1, parse_policy_string(7, &cfg_, text.data(), text.size(), 0, 0, nullptr, small,
                                    sizeof small));
  EXPECT_STREQ("Policy sy", small);
}

// ---- Values: each type lands in its field -------------------------------------

TEST_F(PolicyTest, NumbersAndStringsLandInTheirFields) {
  EXPECT_EQ("OK", Parse("# dedup=true\n\nmax_seg_size=1G,dedup_min_size=4k,fencepost_gap=0x10\n"
                        "rep_inline_size=8M,dedup_pri=12,max_seg_age=1:30,trunc_age=2w\n"
                        "dedup_skip=\"*.tmp,*.bak\",trunc_skip=x#y"));
  EXPECT_EQ(0u, cfg_.polcfg_flags);  // the comment set nothing
  EXPECT_EQ(1LL << 30, cfg_.polcfg_max_seg_size);
  EXPECT_EQ(4096u, cfg_.polcfg_dedup_min_size);
  EXPECT_EQ(16, cfg_.polcfg_fencepost_gap);
  EXPECT_EQ(8u << 20, cfg_.polcfg_rep_inline_size);
  EXPECT_EQ(12u, cfg_.polcfg_dedup_pri);
  EXPECT_EQ(90, cfg_.polcfg_max_seg_age);
  EXPECT_EQ(1209600u, cfg_.polcfg_trunc_age);
  EXPECT_STREQ("*.tmp,*.bak", cfg_.polcfg_dedup_regex);
  EXPECT_STREQ("x#y", cfg_.polcfg_trunc_regex);
  // The truncation minimum is derived when the whole policy is loaded.
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, cfg_.polcfg_origin[VDP_SLOT_TRUNC_MIN_SIZE]);
}

// Strings hold at most 511 characters; numbers take their bounds.
TEST_F(PolicyTest, ValuesAtTheirLimitsAreTaken) {
  EXPECT_EQ("OK", Parse("rep_callout=" + std::string(511, 'c')));
  EXPECT_EQ(511u, std::strlen(cfg_.polcfg_rep_callout));
  EXPECT_NE("OK", Parse("rep_name=" + std::string(512, 'c')));
  EXPECT_EQ(nullptr, cfg_.polcfg_rep_name);
  EXPECT_EQ("OK", Parse("dedup_pri=999,rep_copies=16,trunc_low_water=0,trunc_high_water=100"));
}

// Bare, a boolean is on; each sets and clears its own bit and no other.
TEST_F(PolicyTest, EachBooleanOwnsItsBit) {
  const struct {
    const char *keyword;
    uint32_t flags, rep_flags;
  } cases[] = {
      {"dedup", 0x1, 0},          {"trunc", 0x4, 0},          {"rep_output", 0x10, 0},
      {"dedup_filter", 0x200, 0}, {"objs", 0x800, 0},         {"WAS", 0x800, 0},
      {"rep_subtree", 0, 0x1},    {"rep_dedup", 0, 0x4},      {"rep_report", 0, 0x100},
      {"rep_compress", 0, 0x400}, {"rep_encrypt", 0, 0x1000},
  };
  for (const auto &c : cases) {
    Reset();
    EXPECT_EQ("OK", Parse(c.keyword)) << c.keyword;
    EXPECT_EQ(c.flags, cfg_.polcfg_flags) << c.keyword;
    EXPECT_EQ(c.rep_flags, cfg_.polcfg_rep_flags) << c.keyword;
    Reset();
    cfg_.polcfg_flags = cfg_.polcfg_rep_flags = ~0u;
    EXPECT_EQ("OK", Parse(std::string(c.keyword) + "=No")) << c.keyword;
    EXPECT_EQ(~c.flags, cfg_.polcfg_flags) << c.keyword;
    EXPECT_EQ(~c.rep_flags, cfg_.polcfg_rep_flags) << c.keyword;
  }
}

TEST_F(PolicyTest, RepInputSetsExactlyOneState) {
  for (auto [text, bit] : {std::pair{"TRUE", VDP_REP_INPUT_ON},
                           {"off", VDP_REP_INPUT_OFF},
                           {"false", VDP_REP_INPUT_OFF},
                           {"disabled", VDP_REP_INPUT_DISABLED},
                           {"on", VDP_REP_INPUT_ON}}) {
    Reset();
    cfg_.polcfg_rep_flags = VDP_REP_INPUT_MASK | VDP_REP_REPORT;
    EXPECT_EQ("OK", Parse(std::string("rep_input=") + text));
    EXPECT_EQ(bit | VDP_REP_REPORT, cfg_.polcfg_rep_flags) << text;
  }
}

// ---- Options given more than once ---------------------------------------------

// An option given twice, synonyms included, says no more than where, and
// the first value stays; only later names are ignored.
TEST_F(PolicyTest, SecondSettingFailsAndKeepsTheFirstValue) {
  EXPECT_EQ("Policy syntax error line 1 for key: 5", ParseKeyed("dedup=on,dedup=off"));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags);
  Reset();
  EXPECT_EQ("Policy syntax error line 2 for key: 5", ParseKeyed("objs_id=a\nwas_id=b\n"));
  EXPECT_STREQ("a", cfg_.polcfg_cloud_id);
  Reset();
  EXPECT_EQ("OK", Parse("name=a,name=b\nname=" + std::string(40, 'n')));
  EXPECT_STREQ("a", cfg_.polcfg_name);
}

TEST_F(PolicyTest, InheritedValuesAreReplacedNotDuplicates) {
  merge_policy(&cfg_, &Global_Policy_Config);
  EXPECT_EQ("OK", Parse("dedup=on,dedup_bfst=pool1,trunc_age=1h"));
  EXPECT_STREQ("pool1", cfg_.polcfg_dedup_bfst);
  EXPECT_EQ(3600u, cfg_.polcfg_trunc_age);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_DEDUP_BFST]);
  EXPECT_EQ(VDP_ORIGIN_INHERITED, cfg_.polcfg_origin[VDP_SLOT_DEDUP_AGE]);
}

// ---- Keywords with special values ---------------------------------------------

// Affinity is eight bytes, space padded, the first character in the lowest
// byte. Windows are kept as text without the optional brackets and compiled
// when the whole policy is loaded. Live, root is a path under the mount.
TEST_F(PolicyTest, SpecialValuesAreStoredAsTheLoaderNeedsThem) {
  EXPECT_EQ("OK", ParseKeyed("key=42,name=" + std::string(31, 'n') +
                                 ",affinity=ab,rep_realize=/a/b//,root=0x2a\n"
                                 "ingest_off=[0 8-18 * * Mon-Fri],rep_off=@daily",
                             42));
  EXPECT_EQ(0x2020202020206261u, cfg_.polcfg_affinity);
  EXPECT_STREQ("/a/b", cfg_.polcfg_realize);
  EXPECT_STREQ("0x2a", cfg_.polcfg_root);
  EXPECT_STREQ("0 8-18 * * Mon-Fri", cfg_.polcfg_ingest_sched_str);
  EXPECT_STREQ("@daily", cfg_.polcfg_rep_sched_str);
  EXPECT_EQ(nullptr, cfg_.polcfg_ingest_sched);
  Reset();
  cfg_.polcfg_mount = strdup("/mnt/fs1");
  EXPECT_EQ("OK", Parse("affinity=abcdefgh,rep_realize=///,root=0x2a", 1));
  EXPECT_EQ(0x6867666564636261u, cfg_.polcfg_affinity);
  EXPECT_STREQ("", cfg_.polcfg_realize);
  EXPECT_STREQ("/mnt/fs1/__KXFS_Handle.0x2a", cfg_.polcfg_root);
}

}  // namespace
