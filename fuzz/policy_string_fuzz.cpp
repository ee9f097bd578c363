// Fuzzes parse_policy_string: any bytes, as a policy text parsed over a
// record that starts from the compiled-in "default" policy (so inherited
// strings and flags get replaced too). Every parse, good or bad, must
// leave a record that frees cleanly.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "libutil/kxlog.h"
#include "libutil/kxras.h"
#include "vdpolicy/lib/parse/policy_parse.h"

namespace {

void quiet_log(int, const char *, ...) {}
int quiet_ras(const char *, const char *, uint32_t, uint32_t) {
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Syntax errors raise RAS events and bad schedules log; keep the fuzzer's
  // output for its own findings.
  RasFn = &quiet_ras;
  __kxfs_logfn = &quiet_log;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::unique_ptr<char[]> text(new char[size + 1]);
  if (size > 0) std::memcpy(text.get(), data, size);
  text[size] = '\0';

  PolicyConfig_t config;
  init_policy_config(&config);
  merge_policy(&config, &Global_Policy_Config);
  // Alternate keyed and named parses and the live form of root, by the
  // input's length, so both message forms and both root forms are reached.
  config.polcfg_key = size % 2 ? 0 : 77;
  config.polcfg_mount = size % 3 ? nullptr : strdup("/mnt/fz");
  char err[256];
  const char *chain[VDP_MAX_INHERIT_DEPTH + 1] = {};
  (void)parse_policy_string(1, &config, text.get(), size, static_cast<int>(size % 3 == 0), 0, chain,
                            err, sizeof err);
  free_policy_config_contents(&config);
  return 0;
}
