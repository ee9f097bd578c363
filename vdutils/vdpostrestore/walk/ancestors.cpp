// The directories between the file system's root and the start of the walk.
#include "walk/ancestors.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kxdmapi/dm_handle_owner.h"
#include "kxdmapi/kxdmapi.h"
#include "libutil/unique_fd.h"
#include "settings.h"
#include "shown_path.h"
#include "walk/dir_entries.h"
#include "walk/dir_view.h"
#include "walk/mount_root.h"

namespace {

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool same_object(const struct stat &a, const struct stat &b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// One directory above the start, held open.
struct Ancestor {
  kx::UniqueFd fd;
  struct stat st {};
  std::string child;  // the entry in it that leads down toward the start
};

// The mount point of the file system that holds the directory open on
// `fd`, as the DMAPI library knows it; empty when it cannot tell.
std::string file_system_root(int fd) {
  kxdmapi::DmHandle handle, fs_handle;
  char mount_point[DM_PATH_BUFSIZE];
  if (dm_fd_to_handle(fd, &handle.hanp, &handle.hlen) != 0 ||
      dm_handle_to_fshandle(handle.hanp, handle.hlen, &fs_handle.hanp, &fs_handle.hlen) != 0 ||
      dm_fshandle_to_mountpoint(fs_handle.hanp, fs_handle.hlen, mount_point) != 0) {
    return {};
  }
  return mount_point;
}

// The name under which the directory open on `dir_fd` holds `child`.
bool find_child_name(int dir_fd, const struct stat &child, std::string &name) {
  kx::UniqueFd list(openat(dir_fd, ".", kDirOpenFlags));
  if (!list) return false;
  DirEntries entries(std::move(list));
  while (const char *entry = entries.next()) {
    struct stat st;
    if (entries.ino() == child.st_ino && std::strcmp(entry, ".") != 0 &&
        std::strcmp(entry, "..") != 0 && fstatat(dir_fd, entry, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        same_object(st, child)) {
      name = entry;
      return true;
    }
  }
  if (errno == 0) errno = ENOENT;
  return false;
}

// Climbs from the start to the directory `root`, top last. Fails with
// EXDEV where the way up leaves through another mount: the directories
// above would not be the file system's.
bool climb_to_root(int start_fd, const struct stat &start, const struct stat &root,
                   std::vector<Ancestor> &chain) {
  int below_fd = start_fd;
  struct stat below = start;
  while (!same_object(below, root)) {
    if (is_mount_root(below_fd)) {
      errno = EXDEV;
      return false;
    }
    Ancestor up;
    up.fd = kx::UniqueFd(openat(below_fd, "..", kDirOpenFlags));
    if (!up.fd || fstat(up.fd.get(), &up.st) != 0) return false;
    if (same_object(up.st, below)) {  // the top of the name space
      errno = EXDEV;
      return false;
    }
    if (!find_child_name(up.fd.get(), below, up.child)) return false;
    chain.push_back(std::move(up));
    below_fd = chain.back().fd.get();
    below = chain.back().st;
  }
  return true;
}

bool cannot_place(const std::string &root, int err) {
  ErrPrintf("Cannot place %s below the root %s of its file system: %s.\n",
            ShownPath(Mount_Point).c_str(), ShownPath(root.c_str()).c_str(),
            err == EXDEV ? "it is reached through another mount" : std::strerror(err));
  return false;
}

}  // namespace

bool read_ancestors(int start_fd, const struct stat &start, StartContext &context) {
  const std::string root = file_system_root(start_fd);
  if (root.empty()) {
    ErrPrintf("Failed to find the file system of %s: %s.\n", ShownPath(Mount_Point).c_str(),
              std::strerror(errno));
    return false;
  }
  struct stat root_st;
  if (stat(root.c_str(), &root_st) != 0) return cannot_place(root, errno);
  std::vector<Ancestor> chain;
  if (!climb_to_root(start_fd, start, root_st, chain)) return cannot_place(root, errno);

  std::string path = root;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    VPrintf(3, "Reading directory %s above the start.\n", ShownPath(path.c_str()).c_str());
    DirState state;
    const char *policy_path = path.size() < DM_PATH_MAX ? path.c_str() : root.c_str();
    if (!read_dir_view(it->fd.get(), path.c_str(), policy_path, it->st.st_ino, context.loaded.get(),
                       context.relation_point, state)) {
      return false;
    }
    if (state.loaded) context.loaded = std::move(state.loaded);
    context.relation_point = state.relation_point;
    path += '/';
    path += it->child;
  }
  return true;
}
