// Cost of reading a stored policy: the text parse (one per policy file per
// directory change) and the schedule compile of its blackout windows.
#include <benchmark/benchmark.h>

#include <string>

#include "libutil/kxras.h"
#include "vdpolicy/lib/config/schedule.h"
#include "vdpolicy/lib/parse/policy_parse.h"

namespace {

// 40 options over 8 lines, every value syntax represented.
const std::string kPolicy =
    "name=bench,inherit=global,root=0x2a,affinity=fast\n"
    "dedup=on,dedup_filter=off,dedup_age=1d 12h,dedup_min_size=64k,dedup_seg_size=1G\n"
    "dedup_min_round=8M,dedup_max_round=256M,dedup_skip=\"*.tmp,*.bak\",dedup_pri=10\n"
    "dedup_bfst=pool1,max_seg_size=2G,max_seg_age=5m,fencepost_gap=16M\n"
    "# truncation\n"
    "trunc=on,trunc_age=30d,trunc_min_size=1M,trunc_low_water=70,trunc_high_water=90\n"
    "trunc_stub_size=64k,trunc_skip=*.db,trunc_pri=5,ingest_off=[0 8-18 * * Mon-Fri]\n"
    "rep_output=on,rep_input=disabled,rep_subtree=yes,rep_dedup=y,rep_compress=1\n"
    "rep_encrypt=true,rep_report=on,rep_inline_size=4k,rep_copies=3,rep_realize=/dst/\n"
    "rep_target=[0 1 * * *] target://fs1@host:7000 target:/fs2@h2:\n";

void BM_ParsePolicyString(benchmark::State &state) {
  std::string text;
  for (auto _ : state) {
    text = kPolicy;  // the parser cuts lines in place
    PolicyConfig_t cfg;
    init_policy_config(&cfg);
    int rc = parse_policy_string(1, &cfg, text.data(), text.size(), 0, 0, nullptr, nullptr, 0);
    if (rc != 0) state.SkipWithError("parse failed");
    benchmark::DoNotOptimize(cfg.polcfg_flags);
    free_policy_config_contents(&cfg);
  }
  state.counters["options"] = 40;
}
BENCHMARK(BM_ParsePolicyString);

void BM_LoadEntry(benchmark::State &state, const char *text) {
  for (auto _ : state) {
    sched_entry_t *entry = load_entry(text);
    if (entry == nullptr) state.SkipWithError("load_entry failed");
    benchmark::DoNotOptimize(entry);
    free_entry(entry);
  }
}
BENCHMARK_CAPTURE(BM_LoadEntry, workdays, "0 8-18 * * Mon-Fri");
BENCHMARK_CAPTURE(BM_LoadEntry, every15, "*/15 * * * *");
BENCHMARK_CAPTURE(BM_LoadEntry, lists, "0,30 1,2,3 1-15/2 jan,JUL *");
BENCHMARK_CAPTURE(BM_LoadEntry, daily, "@daily");

}  // namespace

BENCHMARK_MAIN();
