// The clean-up rules for one regular file.
#pragma once

#include <sys/stat.h>

#include "rules/dir_state.h"

// A file named by its directory's descriptor and its entry name, so that it
// is opened and removed inside the directory being walked and nowhere else;
// `path` is its full name for messages and the log.
struct FileRef {
  int dir_fd;
  const char *name;
  const char *path;
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
