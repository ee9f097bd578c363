// The clean-up rules for one regular file.
#pragma once

#include <sys/stat.h>

#include <cstddef>

#include "rules/dir_state.h"
#include "rules/event_attr.h"

// A file named by its directory's descriptor and its entry name, so that it
// is opened and removed inside the directory being walked and nowhere else;
// `path` is its full name for messages and the log.
struct FileRef {
  int dir_fd;
  const char *name;
  const char *path;
  // Read ahead by another thread (--jobs): the file's "BFST" as it was read
  // then (null: read it now), and whether its stat came from then too, so
  // that it is checked again before the file goes.
  const BfstRead *bfst_ahead = nullptr;
  bool examined_ahead = false;
  dev_t examined_dev = 0;
  ino_t examined_ino = 0;
  off_t size = 0;  // for the counts, set by apply_file_rules
};

// Applies the rules to a regular file whose lstat data is `st`: files under
// a relation point are left alone; policy information is stripped where the
// directory's policy allows; a file with a size but no blocks, whose data is
// held nowhere else, is reported (and with -r removed). False after a fatal
// error (message written).
[[nodiscard]] bool apply_file_rules(const FileRef &file, const struct stat &st,
                                    const DirState &dir);

// Reports one file: logs it, and with -r removes it once its line is in the
// log. False when the removal or the log line failed; a file that was not
// removed is not logged.
[[nodiscard]] bool remove_file(const FileRef &file);

// kNeverStored: the file has no "BFST" at all; kUnknown: it could not be
// opened or its "BFST" could not be read (message written).
enum class StoredElsewhere { kYes, kNo, kNeverStored, kUnknown };

// Whether the file's "BFST" attribute says that its data is stored in the
// blockpool or in object storage.
StoredElsewhere tag_objid_exists(const FileRef &file);

// The open and read behind tag_objid_exists, without a message: what a
// read-ahead thread may do.
BfstRead read_bfst(const FileRef &file);
