// Whether a directory lies under a storage-manager relation point.
#include "rules/dir_attrs.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi.h"
#include "settings.h"
#include "shown_path.h"

namespace {

using kxdmapi::DmHandle;

constexpr dm_attrname_t kVdeaAttrName{{'V', 'D', 'E', 'A'}};  // the storage manager's
constexpr size_t kVdeaBufferSize = 128;  // only the attribute's presence matters

constexpr dm_eventset_t event_bit(dm_eventtype_t event) {
  return dm_eventset_t{1} << event;
}

// A directory under a relation point has all three of these enabled.
constexpr dm_eventset_t kRelationPointEvents =
    event_bit(DM_EVENT_CREATE) | event_bit(DM_EVENT_REMOVE) | event_bit(DM_EVENT_LINK);

void judge_event_mask(const RelationRead &read, const char *dir_path, bool &relation_point) {
  if (read.fileattr_errno != 0) {
    ErrPrintf("Failed to get attributes for directory %s: %s.\n", ShownPath(dir_path).c_str(),
              std::strerror(read.fileattr_errno));
    // The storage manager's attribute is there and its events cannot be
    // read: the directory may well be a relation point, and its files are
    // kept rather than risked.
    relation_point = true;
    return;
  }
  if ((read.events & kRelationPointEvents) == kRelationPointEvents) {
    relation_point = true;
    VPrintf(3, "Directory %s is under a SM relation point.\n", ShownPath(dir_path).c_str());
  } else {
    VPrintf(3, "Directory %s is not under a SM relation point.\n", ShownPath(dir_path).c_str());
  }
}

// True when the handle names the directory with inode number `dir_ino`
// (handles carry the inode number masked as the driver stores it).
bool handle_names(const DmHandle &handle, uint64_t dir_ino) {
  dm_ino_t ino = 0;
  return dm_handle_to_ino(handle.hanp, handle.hlen, &ino) == 0 &&
         ino == (dir_ino & DM_HANDLE_INO_MASK);
}

// The library answers ENOENT both when the file system has no such
// attribute and when the library itself cannot locate the file system (no
// mount-cache record for the handle, or a mount table it cannot read).
// Only the first means "not a relation point"; the second is a failure to
// read "VDEA". errno is kept for the message.
bool file_system_located(const DmHandle &handle) {
  const int saved = errno;
  char mount_point[DM_PATH_BUFSIZE];
  const bool located = dm_fshandle_to_mountpoint(handle.hanp, handle.hlen, mount_point) == 0;
  errno = saved;
  return located;
}

}  // namespace

RelationRead read_relation_attrs(int dir_fd, const char *dir_path, uint64_t dir_ino) {
  RelationRead read;
  DmHandle handle;
  const bool by_path = std::strlen(dir_path) < DM_PATH_MAX;
  if ((by_path ? dm_path_to_handle(dir_path, &handle.hanp, &handle.hlen)
               : dm_fd_to_handle(dir_fd, &handle.hanp, &handle.hlen)) != 0) {
    read.handle_errno = errno;
    return read;
  }
  read.names_dir = handle_names(handle, dir_ino);
  if (!read.names_dir) return read;
  char buffer[kVdeaBufferSize];
  size_t returned_len = 0;
  int rc = dm_get_dmattr(DM_NO_SESSION, handle.hanp, handle.hlen, DM_NO_TOKEN, &kVdeaAttrName,
                         sizeof buffer, buffer, &returned_len);
  // A read by handle opens the object first, and a failed open says ENOENT
  // as an absent attribute does: only the directory itself can tell the two
  // apart.
  if (rc != 0 && errno == ENOENT) {
    rc = dm_get_dmattr_fd(dir_fd, DM_NO_SESSION, DM_NO_TOKEN, &kVdeaAttrName, sizeof buffer, buffer,
                          &returned_len);
  }
  if (rc != 0) {
    read.vdea_errno = errno != 0 ? errno : EIO;
    if (read.vdea_errno == ENOENT) read.fs_located = file_system_located(handle);
    return read;
  }
  dm_stat_t dm_stat_buff{};
  if (dm_get_fileattr(DM_NO_SESSION, handle.hanp, handle.hlen, DM_NO_TOKEN, 0, &dm_stat_buff) != 0)
    read.fileattr_errno = errno != 0 ? errno : EIO;
  else
    read.events = dm_stat_buff.dt_emask;
  return read;
}

bool get_dir_attrs(int dir_fd, const char *dir_path, uint64_t dir_ino, bool &relation_point,
                   const RelationRead *ahead) {
  relation_point = false;
  const RelationRead read =
      ahead != nullptr ? *ahead : read_relation_attrs(dir_fd, dir_path, dir_ino);
  if (read.handle_errno != 0) {
    ErrPrintf("Failed to get path-to-handle for directory %s: %s.\n", ShownPath(dir_path).c_str(),
              std::strerror(read.handle_errno));
    return false;
  }
  if (!read.names_dir) {
    ErrPrintf("Directory %s changed while it was being processed.\n", ShownPath(dir_path).c_str());
    return false;
  }
  if (read.vdea_errno == 0) {
    VPrintf(3, "Dir has attributes.\n");
    judge_event_mask(read, dir_path, relation_point);
    return true;
  }
  if (read.vdea_errno == ENODATA || (read.vdea_errno == ENOENT && read.fs_located)) {
    VPrintf(3, "Not a relation point, no attributes found for directory %s.\n",
            ShownPath(dir_path).c_str());
    return true;
  }
  ErrPrintf("Failed to get xattr for directory %s: %s.\n", ShownPath(dir_path).c_str(),
            std::strerror(read.vdea_errno));
  return false;
}
