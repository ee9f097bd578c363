#include "kxsim/core/state_store.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "kxsim/core/sysio.h"

namespace kxsim {

std::string StateStore::fs_dir(std::uint64_t fsid) const {
  char buf[20];
  (void)std::snprintf(buf, sizeof buf, "%016llx", static_cast<unsigned long long>(fsid));
  return dir_ + "/" + buf;
}

std::string StateStore::object_path(std::uint64_t fsid, std::uint64_t ino) const {
  return fs_dir(fsid) + "/" + std::to_string(ino);
}

std::string StateStore::fs_object_path(std::uint64_t fsid) const {
  return fs_dir(fsid) + "/fs";
}

bool StateStore::load_file(const std::string &path, ObjectState &out) {
  out = ObjectState{};
  std::string text;
  if (!sys::read_file(path, text)) {
    if (errno == ENOENT) return true;
    // A state file that cannot be read for want of resources (EMFILE at
    // the descriptor limit, ENOMEM) says so, as the process's own calls
    // would: an EIO there would send the tool's user looking for a broken
    // disk.
    const int err = errno;
    error_ = path + ": " + std::to_string(err);
    errno = err == EMFILE || err == ENFILE || err == ENOMEM ? err : EIO;
    return false;
  }
  if (!parse_object_state(text, out, error_)) {
    error_ = path + ": " + error_;
    errno = EIO;
    return false;
  }
  return true;
}

bool StateStore::save_file(std::uint64_t fsid, const std::string &path, const ObjectState &st) {
  if (st.empty()) {
    if (sys::unlink_at(AT_FDCWD, path.c_str()) != 0 && errno != ENOENT) return false;
    return true;
  }
  const std::string text = format_object_state(st);
  if (sys::write_file_atomic(path, text)) return true;
  // The file system's directory is made on its first state only: looking
  // for it on every save would cost more than the save.
  if (errno != ENOENT || !sys::make_dirs(fs_dir(fsid))) return false;
  return sys::write_file_atomic(path, text);
}

bool StateStore::load(std::uint64_t fsid, std::uint64_t ino, const std::string &born,
                      ObjectState &out) {
  std::string path = object_path(fsid, ino);
  if (!load_file(path, out)) return false;
  if (out.born != born && !out.empty()) {
    // A dead file's state: its inode number now names another file.
    sys::unlink_at(AT_FDCWD, path.c_str());
    out = ObjectState{};
  }
  out.born = born;
  return true;
}

bool StateStore::save(std::uint64_t fsid, std::uint64_t ino, const ObjectState &st) {
  return save_file(fsid, object_path(fsid, ino), st);
}

void StateStore::drop(std::uint64_t fsid, std::uint64_t ino) {
  sys::unlink_at(AT_FDCWD, object_path(fsid, ino).c_str());
}

bool StateStore::load_fs(std::uint64_t fsid, ObjectState &out) {
  return load_file(fs_object_path(fsid), out);
}

bool StateStore::save_fs(std::uint64_t fsid, const ObjectState &st) {
  return save_file(fsid, fs_object_path(fsid), st);
}

}  // namespace kxsim
