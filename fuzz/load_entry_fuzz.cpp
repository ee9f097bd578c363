// Fuzzes the schedule parser: any text either yields a record whose Sunday
// bits agree, or null.
#include <cstdint>
#include <string>

#include "libutil/kxlog.h"
#include "vdpolicy/lib/config/schedule.h"

namespace {
void Quiet(int, const char *, ...) {}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  __kxfs_logfn = Quiet;  // every bad text logs a line
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  sched_entry_t *e = load_entry(text.c_str());
  if (e != nullptr) {
    if (sched_bit_test(e->dow, 0) != sched_bit_test(e->dow, 7)) __builtin_trap();
    if (e->next != nullptr) __builtin_trap();
    free_entry(e);
  }
  return 0;
}
