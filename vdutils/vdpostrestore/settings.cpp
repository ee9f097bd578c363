// Process-wide settings of vdpostrestore and its leveled output.
#include "settings.h"

#include <cstdarg>

#include "run_counts.h"

int32_t Verbosity = 1;
int32_t Remove_Files = 0;
int32_t Preserve_dedup_files = 0;
int32_t Preserve_vdpolicy_info = 0;
int32_t Prompt_for_dedup_files = 0;
int32_t Jobs = 1;
int32_t Show_Progress = -1;
int32_t Print_Summary = 0;
char Mount_Point[kPathBufferSize];
char LogFileName[kPathBufferSize];
FILE *LogFile = nullptr;
const char *Prog = nullptr;

void VPrintf(int vlevel, const char *format, ...) {
  if (Verbosity < vlevel) return;
  erase_progress_line();
  va_list ap;
  va_start(ap, format);
  (void)std::vfprintf(stdout, format, ap);
  va_end(ap);
}

void ErrPrintf(const char *format, ...) {
  erase_progress_line();
  ++Run_Counts.errors;
  (void)std::fflush(stdout);
  va_list ap;
  va_start(ap, format);
  (void)std::vfprintf(stderr, format, ap);
  va_end(ap);
}
