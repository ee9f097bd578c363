// parse_policy_string as a policy author meets it: lines and separators,
// value syntaxes, ranges, duplicates and the keywords with special values.
#include <cstring>
#include <utility>

#include "policy_fixture.h"

namespace {

std::string Affinity(uint64_t packed) {
  std::string s;
  for (int i = 0; i < 8; ++i) s += static_cast<char>((packed >> (8 * i)) & 0xff);
  return s;
}

}  // namespace

// ---- Lines, separators and comments -------------------------------------

TEST_F(PolicyParseTest, BareBooleanAndCaseInsensitiveKeywordsSetDedup) {
  EXPECT_EQ("OK", Parse("dedup\n"));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags & VDP_FLAG_DEDUP);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_DEDUP]);

  Reset();
  EXPECT_EQ("OK", Parse("DEDUP=Yes\n"));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags & VDP_FLAG_DEDUP);
}

TEST_F(PolicyParseTest, CommasSeparateAndCommentLinesAreSkipped) {
  EXPECT_EQ("OK", ParseKeyed("name=a,key=5"));
  EXPECT_STREQ("a", cfg_.polcfg_name);
  Reset();
  EXPECT_EQ("OK", Parse("# dedup=true\n#\n"));
  EXPECT_EQ(0u, cfg_.polcfg_flags);
}

// Each row is a text of a policy with key 5 and the one message it gets.
TEST_F(PolicyParseTest, SyntaxErrorsNameTheLineAndTheCause) {
  const std::string at = "Policy syntax error line ";
  const std::pair<std::string, std::string> cases[] = {
      // Blanks and trailing comments are no separators.
      {"dedup=on, key=5", at + "1 for key: 5: Unrecognized option: ' key=5'"},
      {"dedup=true # on\n", at + "1 for key: 5: Unrecognized option: ' # on'"},
      {"# policy\r\ndedup=on\r\ntrunc=on\r\n", at + "2 for key: 5: Unrecognized option: '\r'"},
      // Blank lines count in line numbers.
      {"\n\ndedup=on\n\ntrunc=maybe\n",
       at + "5 for key: 5: Unrecognized boolean value in 'trunc=maybe'"},
      {"trunc_stub_size=1T",
       at + "1 for key: 5: Unrecognized number (Invalid unit multiplier (k/K/m/M/g/G allowed)) "
            "in 'trunc_stub_size=1T'"},
      // %d stops after the digits; "x10" is then an unknown keyword.
      {"dedup_pri=0x10", at + "1 for key: 5: Unrecognized option: 'x10'"},
      {"dedup=onward", at + "1 for key: 5: Unrecognized option: 'ward'"},  // booleans are prefixes
      {"rep_input=maybe",
       at + "1 for key: 5: Unknown choice enumerated in option 'rep_input=maybe'; "
            "Expected: {on,true|off,false|disabled}"},
      {"objs_pri=1,dedup_pri=1000",
       at + "1 for key: 5: Parameter 'dedup_pri' (1000) out of range, min 0 max 999"},
      {"rep_copies=17",
       at + "1 for key: 5: Parameter 'rep_copies' (17) out of range, min 0 max 16"},
      {"trunc_low_water=101",
       at + "1 for key: 5: Parameter 'trunc_low_water' (101) out of range, min 0 max 100"},
      // Options given twice, synonyms included, say no more than where.
      {"dedup=on,dedup=off", at + "1 for key: 5"},
      {"objs_id=a\nwas_id=b\n", at + "2 for key: 5"},
      // A reason cut to the parser's 511 characters loses its last one.
      {std::string(600, 'x'), at + "1 for key: 5: Unrecognized option: '" + std::string(488, 'x')},
  };
  for (const auto &[text, message] : cases) {
    Reset();
    EXPECT_EQ(message, ParseKeyed(text)) << text;
  }
}

TEST_F(PolicyParseTest, NamedPolicyErrorsNameThePolicy) {
  EXPECT_EQ("Policy syntax error line 2 for name: pol: Unrecognized option: 'bogus'",
            Parse("name=pol\nbogus\n"));
  Reset();
  EXPECT_EQ("Policy syntax error line 1 for name: (null): Unrecognized option: 'bogus'",
            Parse("bogus"));
}

TEST_F(PolicyParseTest, SyntaxErrorRaisesOneRasEventWithoutOptionDetail) {
  EXPECT_NE("OK", ParseKeyed("bogus\n"));
  ASSERT_EQ(1u, Events().size());
  const std::string &ev = Events()[0];
  EXPECT_EQ(0u, ev.find("SL_EVT_REP_DEDUPE_COMM|")) << ev;
  EXPECT_NE(std::string::npos, ev.find("Policy syntax error line 1 for key: 5")) << ev;
  EXPECT_EQ(std::string::npos, ev.find("Unrecognized")) << ev;
}

TEST_F(PolicyParseTest, QuotedStringsMayHoldCommas) {
  EXPECT_EQ("OK", Parse("dedup_skip=\"*.tmp,*.bak\",trunc_skip=x#y\n"));
  EXPECT_STREQ("*.tmp,*.bak", cfg_.polcfg_dedup_regex);
  EXPECT_STREQ("x#y", cfg_.polcfg_trunc_regex);
}

TEST_F(PolicyParseTest, StringValuesHoldAtMost511Characters) {
  EXPECT_EQ("OK", Parse("rep_callout=" + std::string(511, 'c')));
  EXPECT_EQ(511u, std::strlen(cfg_.polcfg_rep_callout));
  EXPECT_NE("OK", Parse("rep_name=" + std::string(512, 'c')));
  EXPECT_EQ(nullptr, cfg_.polcfg_rep_name);
}

TEST_F(PolicyParseTest, TextIsBoundedByItsLengthNotByNul) {
  std::string text = "dedup=on,trunc=on";
  char err[64] = "";
  // Only "dedup=on" is inside the length: no terminator follows it.
  ASSERT_EQ(0, parse_policy_string(7, &cfg_, text.data(), 8, 0, 0, nullptr, err, sizeof err));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags);
  EXPECT_EQ(0, parse_policy_string(7, &cfg_, nullptr, 0, 0, 0, nullptr, err, sizeof err));
}

TEST_F(PolicyParseTest, MessageBufferMayBeAbsentOrSmall) {
  std::string text = "bogus";
  EXPECT_EQ(-1, parse_policy_string(7, &cfg_, text.data(), text.size(), 0, 0, nullptr, nullptr, 0));
  text = "bogus";
  char small[10];
  std::memset(small, 'x', sizeof small);
  EXPECT_EQ(-1, parse_policy_string(7, &cfg_, text.data(), text.size(), 0, 0, nullptr, small,
                                    sizeof small));
  EXPECT_STREQ("Policy sy", small);
}

// ---- Numbers, intervals, booleans, choices and ranges -------------------

TEST_F(PolicyParseTest, SizesTakeUnitsAndAnyBase) {
  EXPECT_EQ("OK", Parse("max_seg_size=1G,dedup_min_size=4k,fencepost_gap=0x10,"
                        "rep_inline_size=8M,dedup_pri=12"));
  EXPECT_EQ(1LL << 30, cfg_.polcfg_max_seg_size);
  EXPECT_EQ(4096u, cfg_.polcfg_dedup_min_size);
  EXPECT_EQ(16, cfg_.polcfg_fencepost_gap);
  EXPECT_EQ(8u << 20, cfg_.polcfg_rep_inline_size);
  EXPECT_EQ(12u, cfg_.polcfg_dedup_pri);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_REP_INLINE_SIZE]);
  EXPECT_EQ(VDP_ORIGIN_DEFAULT, cfg_.polcfg_origin[VDP_SLOT_TRUNC_MIN_SIZE]);
}

TEST_F(PolicyParseTest, IntervalsInEveryForm) {
  EXPECT_EQ("OK", Parse("dedup_age=1d 12h,max_seg_age=1:30,trunc_age=2w,objs_age=90"));
  EXPECT_EQ(129600u, cfg_.polcfg_dedup_age);
  EXPECT_EQ(90, cfg_.polcfg_max_seg_age);
  EXPECT_EQ(1209600u, cfg_.polcfg_trunc_age);
  EXPECT_EQ(90u, cfg_.polcfg_cloud_age);
  std::string msg = ParseKeyed("rep_pri=1\ntrunc_age=1d12");
  EXPECT_EQ(0u, msg.find("Policy syntax error line 2 for key: 5: Bad time format:")) << msg;
  EXPECT_NE(std::string::npos, msg.find("incomplete specification")) << msg;
}

TEST_F(PolicyParseTest, BooleansAreReadAsPrefixes) {
  cfg_.polcfg_flags = VDP_FLAG_TRUNC;
  EXPECT_EQ("OK", Parse("trunc=no,rep_compress=TRUE,rep_encrypt=1"));
  EXPECT_EQ(0u, cfg_.polcfg_flags);
  EXPECT_EQ(VDP_REP_COMPRESS | VDP_REP_ENCRYPT, cfg_.polcfg_rep_flags);
}

TEST_F(PolicyParseTest, EachBooleanOwnsItsBit) {
  EXPECT_EQ("OK", Parse("dedup,trunc,rep_output,dedup_filter,was,rep_subtree,rep_dedup,"
                        "rep_report,rep_compress,rep_encrypt"));
  EXPECT_EQ(0x1u | 0x4u | 0x10u | 0x200u | 0x800u, cfg_.polcfg_flags);
  EXPECT_EQ(0x1u | 0x4u | 0x100u | 0x400u | 0x1000u, cfg_.polcfg_rep_flags);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_OBJS]);
}

TEST_F(PolicyParseTest, RepInputSetsExactlyOneState) {
  cfg_.polcfg_rep_flags = VDP_REP_INPUT_DISABLED | VDP_REP_REPORT;
  EXPECT_EQ("OK", Parse("rep_input=TRUE"));
  EXPECT_EQ(VDP_REP_INPUT_ON | VDP_REP_REPORT, cfg_.polcfg_rep_flags);
  for (auto [text, bit] : {std::pair{"off", VDP_REP_INPUT_OFF},
                           {"false", VDP_REP_INPUT_OFF},
                           {"disabled", VDP_REP_INPUT_DISABLED},
                           {"on", VDP_REP_INPUT_ON}}) {
    cfg_.polcfg_origin[VDP_SLOT_REP_INPUT] = VDP_ORIGIN_DEFAULT;
    EXPECT_EQ("OK", Parse(std::string("rep_input=") + text));
    EXPECT_EQ(bit, cfg_.polcfg_rep_flags & VDP_REP_INPUT_MASK) << text;
  }
}

TEST_F(PolicyParseTest, RangesTakeTheirBounds) {
  EXPECT_EQ("OK", Parse("dedup_pri=999,rep_copies=16,trunc_low_water=0,trunc_high_water=100"));
}

// ---- Options given more than once ---------------------------------------

TEST_F(PolicyParseTest, SecondSettingKeepsTheFirstValueAndSynonymsShareOneSlot) {
  EXPECT_NE("OK", ParseKeyed("dedup=on,dedup=off"));
  EXPECT_EQ(VDP_FLAG_DEDUP, cfg_.polcfg_flags);
  Reset();
  EXPECT_NE("OK", ParseKeyed("objs_id=a\nwas_id=b\n"));
  EXPECT_STREQ("a", cfg_.polcfg_cloud_id);
}

TEST_F(PolicyParseTest, LaterNamesAreIgnored) {
  EXPECT_EQ("OK", Parse("name=a,name=b\nname=" + std::string(40, 'n')));
  EXPECT_STREQ("a", cfg_.polcfg_name);
}

TEST_F(PolicyParseTest, InheritedValuesAreReplacedNotDuplicates) {
  merge_policy(&cfg_, &Global_Policy_Config);
  EXPECT_EQ("OK", Parse("dedup=on,dedup_bfst=pool1,trunc_age=1h"));
  EXPECT_STREQ("pool1", cfg_.polcfg_dedup_bfst);
  EXPECT_EQ(3600u, cfg_.polcfg_trunc_age);
  EXPECT_EQ(VDP_ORIGIN_LOCAL, cfg_.polcfg_origin[VDP_SLOT_DEDUP_BFST]);
  EXPECT_EQ(VDP_ORIGIN_INHERITED, cfg_.polcfg_origin[VDP_SLOT_DEDUP_AGE]);
}

// ---- Keywords with special values ---------------------------------------

TEST_F(PolicyParseTest, NameHoldsAtMost31Characters) {
  EXPECT_EQ("policy name too long", Parse("name=" + std::string(32, 'n')));
  EXPECT_EQ(nullptr, cfg_.polcfg_name);
  Reset();
  EXPECT_EQ("OK", Parse("name=" + std::string(31, 'n')));
}

TEST_F(PolicyParseTest, KeyMustMatchTheFileKey) {
  EXPECT_EQ("OK", ParseKeyed("key=42", 42));
  cfg_.polcfg_origin[VDP_SLOT_KEY] = VDP_ORIGIN_DEFAULT;
  EXPECT_EQ("Policy file key 42 doesn't match key option value 43", ParseKeyed("key=43", 42));
  cfg_.polcfg_origin[VDP_SLOT_KEY] = VDP_ORIGIN_DEFAULT;
  EXPECT_EQ("Option 'key' not allowed", ParseKeyed("key=0", 0));
}

TEST_F(PolicyParseTest, RootIsTheHandlePathOnlyForLiveUse) {
  EXPECT_EQ("OK", Parse("root=0x2a"));
  EXPECT_STREQ("0x2a", cfg_.polcfg_root);
  Reset();
  cfg_.polcfg_mount = strdup("/mnt/fs1");
  EXPECT_EQ("OK", Parse("root=0x2a", 1));
  EXPECT_STREQ("/mnt/fs1/__KXFS_Handle.0x2a", cfg_.polcfg_root);
}

TEST_F(PolicyParseTest, AffinityIsSpacePaddedInTextOrder) {
  EXPECT_EQ("OK", Parse("affinity=ab"));
  EXPECT_EQ("ab      ", Affinity(cfg_.polcfg_affinity));
  EXPECT_EQ('a', static_cast<char>(cfg_.polcfg_affinity & 0xff));
  cfg_.polcfg_origin[VDP_SLOT_AFFINITY] = VDP_ORIGIN_DEFAULT;
  EXPECT_EQ("OK", Parse("affinity=abcdefgh"));
  EXPECT_EQ("abcdefgh", Affinity(cfg_.polcfg_affinity));
  cfg_.polcfg_origin[VDP_SLOT_AFFINITY] = VDP_ORIGIN_DEFAULT;
  EXPECT_EQ("Affinity value must be 8 chars of less", Parse("affinity=abcdefghi"));
}

TEST_F(PolicyParseTest, BlackoutWindowsKeepTheTextInsideBrackets) {
  EXPECT_EQ("OK", Parse("ingest_off=[0 8-18 * * Mon-Fri],rep_off=@daily"));
  EXPECT_STREQ("0 8-18 * * Mon-Fri", cfg_.polcfg_ingest_sched_str);
  EXPECT_STREQ("@daily", cfg_.polcfg_rep_sched_str);
  // Compiled when the whole policy is loaded, not here.
  EXPECT_EQ(nullptr, cfg_.polcfg_ingest_sched);
}

TEST_F(PolicyParseTest, UnclosedBlackoutBracketIsRefused) {
  EXPECT_EQ("Bad schedule specifier", Parse("rep_off=[0 8 * * *"));
  EXPECT_EQ(nullptr, cfg_.polcfg_rep_sched_str);
}

TEST_F(PolicyParseTest, RealizeLosesTrailingSlashes) {
  EXPECT_EQ("OK", Parse("rep_realize=/a/b//"));
  EXPECT_STREQ("/a/b", cfg_.polcfg_realize);
  cfg_.polcfg_origin[VDP_SLOT_REP_REALIZE] = VDP_ORIGIN_DEFAULT;
  EXPECT_EQ("OK", Parse("rep_realize=///"));
  EXPECT_STREQ("", cfg_.polcfg_realize);
}

TEST_F(PolicyParseTest, ExplicitParentThatCannotBeFoundFailsTheParse) {
  EXPECT_EQ("Failed to inherit policy parent", Parse("inherit=parent,dedup", 1));
}
