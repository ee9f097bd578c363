// vdpostrestore's command line: options, their values and the mount point,
// as a root shell could pass them. The input is split at NUL bytes into at
// most 32 arguments.
#include <getopt.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "options.h"
#include "settings.h"

namespace {

void reset_settings() {
  Verbosity = 1;
  Remove_Files = Preserve_dedup_files = Preserve_vdpolicy_info = Prompt_for_dedup_files = 0;
  Mount_Point[0] = LogFileName[0] = '\0';
  optind = 0;  // glibc: start a fresh scan
  opterr = 1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  // Usage and option errors would flood the fuzzer's own output; the
  // sanitizers report through the descriptor, not this stream.
  FILE *sink = std::fopen("/dev/null", "w");
  if (sink != nullptr) stderr = sink;
  Prog = "vdpostrestore";
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  constexpr size_t kMaxArgs = 32;
  std::vector<std::string> words{"vdpostrestore"};
  std::string word;
  for (size_t i = 0; i < size && words.size() < kMaxArgs; ++i) {
    if (data[i] == 0) {
      words.push_back(word);
      word.clear();
    } else {
      word += static_cast<char>(data[i]);
    }
  }
  if (words.size() < kMaxArgs) words.push_back(word);
  std::vector<char *> argv;
  for (std::string &w : words) argv.push_back(w.data());
  argv.push_back(nullptr);
  reset_settings();
  if (parse_command_line(static_cast<int>(words.size()), argv.data()) == OptionsResult::kRun) {
    // What start-up relies on: both buffers terminated, a mount point left.
    if (std::memchr(Mount_Point, '\0', sizeof Mount_Point) == nullptr ||
        std::memchr(LogFileName, '\0', sizeof LogFileName) == nullptr || Mount_Point[0] == '\0')
      __builtin_trap();
  }
  return 0;
}
