// validate_policy's rules in their order, its report, and the throttle that
// lets each policy raise one RAS event a day.
#include <string>
#include <utility>

#include "policy_fixture.h"
#include "vdpolicy/lib/check/policy_validate.h"

namespace {

class PolicyValidateTest : public vdtest::PolicyTest {
 protected:
  void TearDown() override {
    need_pol_ras_throttle = 0;
    PolicyTest::TearDown();
  }
  // "OK", or the reason line of the report.
  std::string Validate(std::string text) {
    Reset();
    cfg_.polcfg_key = 5;
    EXPECT_EQ("OK", Parse(std::move(text)));
    char err[1024] = "";
    if (validate_policy(&cfg_, 7, err, sizeof err) == 1) return "OK";
    std::string report = err;
    size_t at = report.find("Reason: ");
    return at == std::string::npos ? report : report.substr(at + 8, report.find('\n', at) - at - 8);
  }
};

TEST_F(PolicyValidateTest, FirstFailingRuleGivesTheReason) {
  const std::pair<std::string, std::string> cases[] = {
      {"dedup_min_round=8m,dedup_max_round=8m", "OK"},
      {"dedup_min_round=9m,dedup_max_round=8m",
       "dedup_max_round cannot be less than dedup_min_round"},
      {"dedup,objs", "Cannot have both dedup and OBJS enabled in same policy"},
      {"objs,rep_output", "Cannot have OBJS and replication enabled in same policy"},
      {"objs", "objs_id must be specified when OBJS is turned on"},
      {"objs,objs_id=x", "objs_namespace must be specified when OBJS is turned on"},
      {"objs_id=", "OK"},
      {"objs_id=x", "OBJS must be turned on to configure OBJS-related parameters"},
      {"trunc_low_water=0,trunc_high_water=90",
       "high/low watermarks must both be zero or non-zero"},
      {"name=me,inherit=me", "A policy can't inherit from itself"},
      {"rep_output", "replication requires target definitions"},
      {"rep_output,rep_target=target:/a@h:1", "OK"},
  };
  for (const auto &[text, reason] : cases) EXPECT_EQ(reason, Validate(text)) << text;
  cfg_.polcfg_key = 0;
  char err[512] = "";
  EXPECT_EQ(0, validate_policy(&cfg_, 7, err, sizeof err));
  EXPECT_STREQ(
      "Policy '(null)' failed validation:\nReason: a policy must have a key or a name\n"
      "Params: inherit=NULL root=NULL",
      err);
}

TEST_F(PolicyValidateTest, ThrottledRepeatIsReportedToTheCallerOnly) {
  need_pol_ras_throttle = 1;
  ASSERT_EQ("OBJS must be turned on to configure OBJS-related parameters",
            Validate("name=thr,objs_id=x"));
  ASSERT_EQ(1u, Events().size());
  ASSERT_EQ(1u, log.Lines().size());
  EXPECT_EQ("OBJS must be turned on to configure OBJS-related parameters",
            Validate("name=thr,objs_id=x"));
  EXPECT_EQ(1u, Events().size());
  EXPECT_EQ(1u, log.Lines().size());
}

TEST(PolicyRasThrottleTest, OnePerPolicyPerDayOverTheLast128) {
  EXPECT_EQ(1, need_pol_ras("p", 0));  // throttling off: always
  EXPECT_EQ(1, need_pol_ras("p", 0));
  need_pol_ras_throttle = 1;
  EXPECT_EQ(1, need_pol_ras(nullptr, 9));
  EXPECT_EQ(0, need_pol_ras(nullptr, 9));
  for (int i = 0; i < 127; ++i) EXPECT_EQ(1, need_pol_ras(("p" + std::to_string(i)).c_str(), 0));
  // The table is full: the 129th policy takes the oldest entry (key 9's).
  EXPECT_EQ(1, need_pol_ras("new", 0));
  EXPECT_EQ(0, need_pol_ras("p0", 0));
  EXPECT_EQ(1, need_pol_ras(nullptr, 9));
  need_pol_ras_throttle = 0;
}

}  // namespace
