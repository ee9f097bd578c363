// Process-wide settings of vdpostrestore and its leveled output.
//
// The settings are written during start-up (options.cpp) and read by the
// walk; Preserve_dedup_files and Prompt_for_dedup_files may also change
// during the walk, when the operator answers the deduplication question.
// Only the walk's committing thread reads or writes them (read-ahead
// threads, with --jobs, print nothing and decide nothing), so nothing here
// is locked.
#pragma once

#include <cstdint>
#include <cstdio>

inline constexpr std::size_t kPathBufferSize = 1024;
// The driver opens a file by handle through "<mount point>/__KXFS_Handle."
// and 48 hex digits, a path that must stay under 1024 characters: every
// directory's relation-point check needs it, so no longer mount point can
// be walked.
inline constexpr std::size_t kMaxMountPointLength = kPathBufferSize - 1 - 15 - 48;
inline constexpr char kDefaultLogFile[] = "/usr/vexo/logs/vdpostrestore.out";
// The DMAPI library release this tool was built for.
inline constexpr char kDmapiVersion[] = "KXFS DMAPI (XDSM) API, Release 1.0.";

extern int32_t Verbosity;               // 1, plus one per -v
extern int32_t Remove_Files;            // -r
extern int32_t Preserve_dedup_files;    // -b, or "yes" to the question
extern int32_t Preserve_vdpolicy_info;  // -p
extern int32_t Prompt_for_dedup_files;  // the question has been asked
extern int32_t Jobs;                    // --jobs: threads that read ahead of the walk
extern int32_t Show_Progress;           // --progress 1, --no-progress 0, else -1: a terminal's
extern int32_t Print_Summary;           // --summary
inline constexpr int32_t kMaxJobs = 256;
extern char Mount_Point[kPathBufferSize];
extern char LogFileName[kPathBufferSize];
extern FILE *LogFile;
extern const char *Prog;  // argv[0]

// Progress message on standard output, printed when Verbosity >= vlevel.
// Adds nothing to the text (no prefix, no newline).
void VPrintf(int vlevel, const char *format, ...) __attribute__((format(printf, 2, 3)));

// Error message on standard error. Standard output is flushed first so that
// progress and errors keep their order when both go to one file or pipe.
void ErrPrintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
