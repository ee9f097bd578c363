// The policy API's own failure paths and the summary record built from a
// configuration: null arguments, long paths, inconsistent replication
// flags, bad targets and every allocation failure.
#include <set>

#include "policy_fixture.h"
#include "vdpolicy/lib/summary/vdpol.h"

namespace {

using vdtest::OwnedVdp;
using vdtest::PolicyStoreTest;

std::string Open(const char *path, vdpol_hndl_s **h) {
  char err[1024] = "";
  int rc = vdpol_open(path, h, err, sizeof err);
  return rc == 0 ? "OK" : std::to_string(rc) + ": " + err;
}

TEST_F(PolicyStoreTest, OpenFailuresLeaveNoHandle) {
  vdpol_hndl_s *h = reinterpret_cast<vdpol_hndl_s *>(1);
  EXPECT_EQ("22: VDPOL: ERROR(22): No path supplied.", Open(nullptr, &h));
  EXPECT_EQ(nullptr, h);
  const std::string outside = fs.root() + "/outside";
  ASSERT_EQ(0, mkdir(outside.c_str(), 0755));
  EXPECT_EQ("-1: VDPOL: ERROR(-1): dm_path_to_handle_client failed " + outside + ".",
            Open(outside.c_str(), &h));
  EXPECT_EQ(nullptr, h);
  EXPECT_EQ("3:vdpol_open(" + outside + ",", log.Lines().back().substr(0, outside.size() + 14));
  vdpol_close(&h);
  vdpol_close(nullptr);
}

TEST_F(PolicyStoreTest, LongPathsAreKeptTo511CharactersAndResolvedWhole) {
  std::string rel;
  for (int i = 0; i < 6; ++i) {
    rel += (i ? "/" : "") + std::string(99, static_cast<char>('a' + i));
    ASSERT_TRUE(fs.MakeDir(rel));
  }
  const std::string path = fs.Path(rel);
  ASSERT_GT(path.size(), 600u);
  vdpol_hndl_s *h = nullptr;
  ASSERT_EQ("OK", Open(path.c_str(), &h));
  EXPECT_EQ(path.substr(0, 511), h->VdpDir);
  EXPECT_EQ(fsid(), h->VdpDmFsId);
  vdpol_close(&h);
  EXPECT_EQ(nullptr, h);
}

// Free accepts null and clears the caller's pointer; trailing slashes go,
// inner ones stay.
TEST(VdpRecordTest, FreeAndSlashStrippingTakeEdgeCases) {
  vdp_free(nullptr);
  Vdp_t *r = nullptr;
  vdp_free(&r);
  ASSERT_EQ(0, vdp_alloc(&r, nullptr, 0));
  EXPECT_EQ(-1, r->vdp_dedup_max_seg_sz);
  vdp_free(&r);
  EXPECT_EQ(nullptr, r);
  char a[] = "/a/b//", b[] = "///", c[] = "";
  for (char *s : {a, b, c, static_cast<char *>(nullptr)}) vdp_strip_trailing_slash(s);
  EXPECT_STREQ("/a/b", a);
  EXPECT_STREQ("", b);
}

class RecordFromConfigTest : public vdtest::PolicyTest {
 protected:
  std::string Build() {
    char err[256] = "";
    Vdp_t *r = nullptr;
    int rc = _policy_to_vdp(&r, &cfg_, err, sizeof err);
    record_.reset(r);
    return rc == 0 ? "OK" : std::to_string(rc) + ": " + err;
  }
  OwnedVdp record_;
};

TEST_F(RecordFromConfigTest, ReplicationInputSetWithoutItsBitsIsInvalid) {
  cfg_.polcfg_rep_flags = VDP_REP_INPUT_ON | VDP_REP_INPUT_OFF;
  ASSERT_EQ("OK", Build());
  EXPECT_EQ(1, record_->vdp_rep_input_ctrl);  // "on" wins
  cfg_.polcfg_rep_flags = VDP_REP_REPORT;
  cfg_.polcfg_origin[VDP_SLOT_REP_INPUT] = VDP_ORIGIN_INHERITED;
  EXPECT_EQ("22: Policy: Invalid rep flags (1/0x100)", Build());
  EXPECT_EQ(nullptr, record_);
}

TEST_F(RecordFromConfigTest, TargetsKeepTheirOrderAndAnEmptyOneFails) {
  ASSERT_EQ("OK",
            Parse("rep_target=target:/a@h:1,rep_target=target:/b@h:2,rep_target=target:/c@h:3"));
  ASSERT_EQ("OK", Build());
  std::string order;
  for (vdp_target_t *t = record_->vdp_rep_target_first; t != nullptr; t = t->vdp_target_next)
    order += t->vdp_raw_target[8];
  EXPECT_EQ("abc", order);
  cfg_.polcfg_rep_target[1]->raw_target[0] = '\0';
  EXPECT_EQ("22: ERROR(22) NULL or empty target string", Build());
  EXPECT_EQ("3:_policy_to_vdp: failed 22: ERROR(22) NULL or empty target string\n",
            log.Lines().back());
}

// Every allocation of a full record fails once in turn: each failure gives
// 12 with the slot it stopped at, and nothing is returned or leaked.
TEST_F(RecordFromConfigTest, EveryAllocationFailureGivesTwelveAndNoRecord) {
  const char *text =
      "name=n,inherit=i,root=r,ingest_off=@hourly,dedup_skip=d,dedup_bfst=b,"
      "objs_id=o,objs_namespace=s,trunc_skip=t,rep_callout=c,rep_name=m,"
      "rep_relation=l,rep_skip=k,rep_off=@daily,rep_realize=z,rep_target=target:/a@h:1";
  ASSERT_EQ("OK", Parse(text));
  std::set<std::string> messages;
  for (int n = 0;; ++n) {
    vdpol::alloc_failure_countdown = n;
    std::string outcome = Build();
    vdpol::alloc_failure_countdown = -1;
    if (outcome == "OK") break;
    EXPECT_EQ(nullptr, record_);
    EXPECT_EQ("12: ", outcome.substr(0, 4));
    messages.insert(outcome.substr(4));
  }
  EXPECT_EQ(1u, messages.count("Policy: Allocation failed - out of memory"));
  EXPECT_EQ(1u, messages.count("Policy: Allocation failed - out of memory(61)"));
  EXPECT_EQ(1u, messages.count("ERROR(12) Out of memory"));
  EXPECT_EQ(17u, messages.size());  // the record, 15 strings, the target
}

}  // namespace
