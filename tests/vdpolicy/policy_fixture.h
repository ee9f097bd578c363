// Shared fixture of the policy parser tests: a fresh record, a parse helper
// that returns "OK" or the caller's message, and a RAS hook that records
// the events a parse raises.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "libutil/kxras.h"
#include "vdpolicy/lib/policy.h"

class PolicyParseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    init_policy_config(&cfg_);
    Events().clear();
    RasFn = &Capture;
  }
  void TearDown() override {
    RasFn = nullptr;
    free_policy_config_contents(&cfg_);
  }

  void Reset() {
    free_policy_config_contents(&cfg_);
    init_policy_config(&cfg_);
  }

  // Parses text (a copy: the parser writes into it) into cfg_.
  std::string Parse(std::string text, int do_inherit = 0) {
    char err[1024] = "";
    const char *chain[VDP_MAX_INHERIT_DEPTH + 1] = {};
    int rc = parse_policy_string(7, &cfg_, text.data(), text.size(), do_inherit, 0, chain, err,
                                 sizeof err);
    if (rc == 0) return err[0] == '\0' ? "OK" : std::string("OK with message: ") + err;
    EXPECT_EQ(-1, rc);
    return err[0] != '\0' ? err : "<no message>";
  }

  // A keyed policy, as when its file is looked up by key.
  std::string ParseKeyed(std::string text, uint64_t key = 5) {
    cfg_.polcfg_key = key;
    return Parse(std::move(text));
  }

  static std::vector<std::string> &Events() {
    static std::vector<std::string> events;
    return events;
  }
  static int Capture(const char *name, const char *text, uint32_t, uint32_t) {
    Events().push_back(std::string(name) + "|" + text);
    return 0;
  }

  PolicyConfig_t cfg_{};
};
