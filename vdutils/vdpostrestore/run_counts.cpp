// What a run has done so far.
#include "run_counts.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "settings.h"

RunCounts Run_Counts;

namespace {

constexpr double kProgressInterval = 0.25;  // seconds between updates

bool g_progress_shown = false;  // decided at the start
bool g_line_on_screen = false;
double g_start = 0;
double g_last_update = 0;

double now_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

unsigned long long ull(std::uint64_t n) {
  return static_cast<unsigned long long>(n);
}

}  // namespace

void start_run_counts() {
  g_start = g_last_update = now_seconds();
  g_progress_shown = Show_Progress == 1 || (Show_Progress == -1 && isatty(STDERR_FILENO) == 1);
}

void tick_progress() {
  if (!g_progress_shown) return;
  const double now = now_seconds();
  if (now - g_last_update < kProgressInterval) return;
  g_last_update = now;
  const double elapsed = now - g_start;
  const RunCounts &c = Run_Counts;
  (void)std::fflush(stdout);
  (void)std::fprintf(stderr,
                     "\r\033[K%llu directories, %llu files examined, %llu %s, %.0f files/s, "
                     "%.0f s",
                     ull(c.directories), ull(c.files_examined),
                     ull(Remove_Files ? c.files_removed : c.files_listed),
                     Remove_Files ? "removed" : "listed",
                     elapsed > 0 ? static_cast<double>(c.files_examined) / elapsed : 0.0, elapsed);
  (void)std::fflush(stderr);
  g_line_on_screen = true;
}

void erase_progress_line() {
  if (!g_line_on_screen) return;
  g_line_on_screen = false;
  (void)std::fputs("\r\033[K", stderr);
  (void)std::fflush(stderr);
}

void print_summary() {
  erase_progress_line();
  const RunCounts &c = Run_Counts;
  (void)std::printf(
      "Summary: %llu directories, %llu files examined, %llu listed, %llu removed, "
      "%llu bytes claimed, %llu stripped of policy information, %llu errors, %.1f s.\n",
      ull(c.directories), ull(c.files_examined), ull(c.files_listed), ull(c.files_removed),
      ull(c.bytes_claimed), ull(c.stripped), ull(c.errors), now_seconds() - g_start);
}
