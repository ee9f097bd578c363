// The driver's state, kept outside the files it describes: one text file per
// object under <config>.state/<fsid as 16 hex digits>/, named by the inode
// number ("fs" for the file system's own event list). Nothing is ever
// written into or beside the simulated files, so the state cannot change
// what a walker observes of them (size, allocated blocks, directory entries).
//
// A state file records the birth stamp of its file; state whose stamp no
// longer matches belongs to a dead file whose inode number was reused, and
// is dropped when read.
//
// Not thread-safe by itself; callers serialise. Writers in several processes
// are safe per file (atomic replace), last writer wins.
#pragma once

#include <cstdint>
#include <string>

#include "kxsim/core/object_state.h"

namespace kxsim {

class StateStore {
 public:
  explicit StateStore(std::string dir) : dir_(std::move(dir)) {}

  const std::string &dir() const { return dir_; }
  std::string object_path(std::uint64_t fsid, std::uint64_t ino) const;
  std::string fs_object_path(std::uint64_t fsid) const;
  std::string fs_dir(std::uint64_t fsid) const;

  // Loads the state of (fsid, ino) for a file with birth stamp `born`; an
  // absent or stale file gives an empty state. false with errno (EIO for an
  // unreadable or malformed state file).
  bool load(std::uint64_t fsid, std::uint64_t ino, const std::string &born, ObjectState &out);
  // Writes it (removes the file when the state is empty). false with errno.
  bool save(std::uint64_t fsid, std::uint64_t ino, const ObjectState &st);
  void drop(std::uint64_t fsid, std::uint64_t ino);

  bool load_fs(std::uint64_t fsid, ObjectState &out);
  bool save_fs(std::uint64_t fsid, const ObjectState &st);

  // Message of the last malformed-file error, for diagnostics.
  const std::string &last_error() const { return error_; }

 private:
  bool load_file(const std::string &path, ObjectState &out);
  bool save_file(std::uint64_t fsid, const std::string &path, const ObjectState &st);

  std::string dir_;
  std::string error_;
};

}  // namespace kxsim
