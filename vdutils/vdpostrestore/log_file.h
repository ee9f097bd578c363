// The log file: the record of every file that the run reported or removed.
//
// With -r the log must account for every removal even if the run is killed:
// each line is handed to the kernel right after its file's unlink, before
// anything else is removed, so a run stopped at any moment has logged every
// removed file except at most the one it was removing. A dry run removes
// nothing and keeps the stream buffered.
#pragma once

// Opens LogFileName for writing (created or truncated) into LogFile and
// writes the header. False, with the message written, when it cannot be
// opened or (with -r) when the header cannot be written.
[[nodiscard]] bool open_log_file();

// Appends `path` and a newline. With -r the line is flushed at once. False,
// with a message, when the line could not be written.
[[nodiscard]] bool log_reported_file(const char *path);

// Flushes the log at the end of a complete walk. False, with a message,
// when anything written to it was lost.
[[nodiscard]] bool finish_log_file();
