// The log file: the record of every file that the run reported or removed.
//
// With -r the log is written ahead: a file's line reaches the kernel before
// the file is unlinked, and is taken back if the unlink fails. A run
// stopped at any moment, even by SIGKILL, has logged every removed file;
// at most its last line names a file that still exists. A dry run removes
// nothing and keeps the stream buffered.
#pragma once

#include <string>

#include "libutil/unique_fd.h"

// Opens `path` for writing as fopen(path, "w") would (created or
// truncated, following a symbolic link), but refuses without blocking what
// is no place for a log: anything but a regular file (a FIFO, a socket, a
// device), and a symbolic link that the kernel's protected-symlinks rule
// would not let root follow. An invalid descriptor on failure, with
// `reason` set for a refusal (else errno).
kx::UniqueFd open_log_descriptor(const char *path, std::string &reason);

// Opens LogFileName for writing (created or truncated) into LogFile and
// writes the header. False, with the message written, when it cannot be
// opened or (with -r) when the header cannot be written.
[[nodiscard]] bool open_log_file();

// Dry run: appends `path` and a newline. False, with a message, when the
// line could not be written.
[[nodiscard]] bool log_reported_file(const char *path);

// -r: writes the line of `path` to the kernel before its unlink. False,
// with messages naming the log and the file not removed, when the whole
// line could not be written (any part written is taken back).
[[nodiscard]] bool log_removal_ahead(const char *path);
// -r: the unlink of the file just logged succeeded / failed (its line is
// taken back, so the log names only removed files).
void confirm_removal();
void take_back_removal();

// Flushes the log at the end of a complete walk. False, with a message,
// when anything written to it was lost.
[[nodiscard]] bool finish_log_file();
