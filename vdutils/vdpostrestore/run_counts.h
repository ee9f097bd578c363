// What a run has done so far: the progress line (--progress, or standard
// error a terminal) and the closing summary (--summary).
//
// Counted by the walk's one committing thread; the progress line is written
// from that thread too, between entries, at most four times a second, and
// erased before any other output (VPrintf and ErrPrintf call
// erase_progress_line) and at the end, so that it never mixes with a
// message or reaches a file.
#pragma once

#include <sys/types.h>

#include <cstdint>

struct RunCounts {
  std::uint64_t directories = 0;
  std::uint64_t files_examined = 0;
  std::uint64_t files_listed = 0;   // reported without -r
  std::uint64_t files_removed = 0;  // removed with -r
  std::uint64_t bytes_claimed = 0;  // the sizes of the files listed or removed
  std::uint64_t stripped = 0;       // files and directories stripped of policy information
  std::uint64_t errors = 0;         // messages on standard error
};

extern RunCounts Run_Counts;

// Starts the clock and decides whether the progress line is shown.
void start_run_counts();
// Writes the progress line when it is shown and due.
void tick_progress();
// Clears the progress line from the terminal, if it is there.
void erase_progress_line();
// The one-line summary on standard output, with the time since the start.
void print_summary();
