// The clean-up rules for one regular file.
#include "rules/file_rules.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "libutil/unique_fd.h"
#include "log_file.h"
#include "rules/event_attr.h"
#include "rules/policy_info.h"
#include "run_counts.h"
#include "settings.h"
#include "shown_path.h"

namespace {

// Step f: the policy keeps copies elsewhere; the file goes only when its
// attribute shows that no copy exists, or when it has none at all. A file
// whose attribute cannot be read may hold the only way to its data, and
// stays.
bool check_stored_copy(const FileRef &file, const DirState &dir) {
  const char *where = dir.was_enabled ? "WAS" : "blockpool";
  switch (tag_objid_exists(file)) {
    case StoredElsewhere::kYes:
      VPrintf(3, "  Truncated file stored to %s, Skipping\n", where);
      return true;
    case StoredElsewhere::kNo:
      VPrintf(3, "  Truncated file under WAS policy, but not stored to %s.\n", where);
      return remove_file(file);
    case StoredElsewhere::kNeverStored:
      return remove_file(file);
    case StoredElsewhere::kUnknown:
      VPrintf(3, "  Cannot tell whether the file is stored to %s, Skipping\n", where);
      return true;
  }
  return true;
}

// A file examined ahead of the walk (--jobs) may have been written since:
// it goes only if it is still the file examined and still has no blocks. A
// dry run does not look again: the report is of the tree as it was read.
bool changed_since_examined(const FileRef &file) {
  struct stat now;
  if (fstatat(file.dir_fd, file.name, &now, AT_SYMLINK_NOFOLLOW) == 0 &&
      now.st_dev == file.examined_dev && now.st_ino == file.examined_ino && S_ISREG(now.st_mode) &&
      now.st_blocks == 0)
    return false;
  VPrintf(1, "  File %s changed since it was examined, Skipping.\n", ShownPath(file.path).c_str());
  return true;
}

StoredElsewhere unreadable_bfst(const FileRef &file, const char *reason, bool absent) {
  ErrPrintf("Unable to obtain BFST EA for vdpolicyd managed file %s: %s\n",
            ShownPath(file.path).c_str(), reason);
  return absent ? StoredElsewhere::kNeverStored : StoredElsewhere::kUnknown;
}

}  // namespace

bool apply_file_rules(const FileRef &ref, const struct stat &st, const DirState &dir) {
  FileRef file = ref;
  file.size = st.st_size;
  ++Run_Counts.files_examined;
  if (dir.relation_point) {
    VPrintf(3, "  File is managed by SM, Skipping.\n");
    return true;
  }
  if (may_strip_policy_info(dir)) {
    remove_vdpolicy_info(file.dir_fd, file.name, file.path);
    file.bfst_ahead = nullptr;  // read before the strip: no longer the file's
  }
  if (st.st_blocks != 0) {
    VPrintf(3, "  File has non-zero allocation of %ld blocks, Skipping.\n",
            static_cast<long>(st.st_blocks));
    return true;
  }
  if (st.st_size == 0) {
    VPrintf(3, "  File has zero length, Skipping.\n");
    return true;
  }
  if (!dir.was_enabled && (!dir.dedup_enabled || !Preserve_dedup_files)) return remove_file(file);
  return check_stored_copy(file, dir);
}

bool remove_file(const FileRef &file) {
  if (Remove_Files && file.examined_ahead && changed_since_examined(file)) return true;
  VPrintf(1, "  %s file %s.\n", Remove_Files ? "Removing" : "Would remove",
          ShownPath(file.path).c_str());
  const auto claimed = static_cast<std::uint64_t>(file.size);
  if (!Remove_Files) {
    if (!log_reported_file(file.path)) return false;
    ++Run_Counts.files_listed;
    Run_Counts.bytes_claimed += claimed;
    return true;
  }
  if (!log_removal_ahead(file.path)) return false;
  if (unlinkat(file.dir_fd, file.name, 0) != 0) {
    const int err = errno;
    take_back_removal();
    ErrPrintf("Failed to remove file %s: %s.\n", ShownPath(file.path).c_str(), std::strerror(err));
    return false;
  }
  confirm_removal();
  ++Run_Counts.files_removed;
  Run_Counts.bytes_claimed += claimed;
  return true;
}

BfstRead read_bfst(const FileRef &file) {
  BfstRead read;
  kx::UniqueFd fd(openat(file.dir_fd, file.name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    read.open_errno = errno;
    return read;
  }
  if (dm_get_dmattr_fd(fd.get(), DM_NO_SESSION, DM_NO_TOKEN, &kBfstAttrName, sizeof read.attr.raw,
                       read.attr.raw, &read.len) != 0)
    read.read_errno = errno;
  return read;
}

StoredElsewhere tag_objid_exists(const FileRef &file) {
  const BfstRead read = file.bfst_ahead != nullptr ? *file.bfst_ahead : read_bfst(file);
  if (read.open_errno != 0) {
    ErrPrintf("Cannot open WAS managed file %s, errno=%d: %s\n", ShownPath(file.path).c_str(),
              read.open_errno, std::strerror(read.open_errno));
    return StoredElsewhere::kUnknown;
  }
  // Only ENODATA says that the file never had a stored copy recorded.
  if (read.read_errno != 0)
    return unreadable_bfst(file, std::strerror(read.read_errno), read.read_errno == ENODATA);
  if (read.len < kBlkFlagsEnd)
    return unreadable_bfst(file, too_short_reason(read.len).c_str(), false);
  return (blk_flags(read.attr) & kBlkFlagsStoredElsewhere) != 0 ? StoredElsewhere::kYes
                                                                : StoredElsewhere::kNo;
}
