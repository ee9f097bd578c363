// The depth-first walk of the tree under Mount_Point.
#include "dir_walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "dir_attrs.h"
#include "dir_policy.h"
#include "dir_state.h"
#include "file_rules.h"
#include "libutil/dopanic.h"
#include "path_buffer.h"
#include "policy_info.h"
#include "settings.h"
#include "shown_path.h"
#include "stop_signals.h"
#include "unique_fd.h"

static const char kx_source_path[] = "vdutils/vdpostrestore";

namespace {

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool is_dot_or_dotdot(const char *name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

class Walker {
 public:
  explicit Walker(const char *root) { root_fits_ = path_.assign(root); }

  bool run() {
    if (!root_fits_) return false;  // options.cpp bounds Mount_Point
    // The mount point itself may be reached through a symbolic link, as the
    // administrator named it; nothing below it is.
    return process_directory(AT_FDCWD, path_.c_str(), nullptr, false);
  }

 private:
  UniqueFd open_directory(int parent_fd, const char *name) const {
    const int flags = parent_fd == AT_FDCWD ? kDirOpenFlags : kDirOpenFlags | O_NOFOLLOW;
    return UniqueFd(openat(parent_fd, name, flags));
  }

  // "Failed to <what> <path>: <reason>." for the entry being examined.
  bool fail(const char *what) {
    ErrPrintf("Failed to %s %s: %s.\n", what, ShownPath(path_.c_str()).c_str(),
              std::strerror(errno));
    return false;
  }

  // The directory is opened before anything is asked of it, so a failure is
  // reported as the open it stands for: without an inherited policy the
  // first thing done with the directory is reading its own policy
  // attribute, whose open has always been reported by get_dir_vdp; with one
  // it is listing the entries.
  bool fail_open(bool policy_inherited) {
    if (policy_inherited) return fail("open directory");
    ErrPrintf("get_dir_vdp: Cannot open %s, %s\n", ShownPath(path_.c_str()).c_str(),
              std::strerror(errno));
    return false;
  }

  // Works out the policy view and relation point of the directory open on
  // `fd` (steps that precede reading its entries).
  bool examine_directory(int fd, uint64_t ino, const Vdp_t *vdp, bool tsm_managed,
                         DirState &state) {
    if (vdp != nullptr) {
      state.local_vdp = vdp;
      state.has_vdpd_info = true;
    } else if (get_dir_vdp(fd, path_.c_str(), state.loaded, state.has_vdpd_info) < 0) {
      return false;
    } else {
      state.local_vdp = state.loaded.get();
    }
    derive_policy_flags(state);
    if (state.dedup_enabled) ask_keep_dedup_files(stdin);
    state.relation_point = tsm_managed;
    // Below a relation point nothing needs asking again.
    if (!tsm_managed && !get_dir_attrs(path_.c_str(), ino, state.relation_point)) return false;
    if (may_strip_policy_info(state)) remove_vdpolicy_info_fd(fd, path_.c_str(), 1);
    return true;
  }

  // A record inherited from the parent (vdp) is the parent's; one loaded
  // here is freed when this directory is done.
  bool process_directory(int parent_fd, const char *name, const Vdp_t *vdp, bool tsm_managed) {
    VPrintf(1, "Processing directory %s.\n", ShownPath(path_.c_str()).c_str());
    UniqueFd fd = open_directory(parent_fd, name);
    if (!fd) return fail_open(vdp != nullptr);
    struct stat stat_buff;
    if (fstat(fd.get(), &stat_buff) != 0) return fail("stat directory");
    KX_ASSERT(S_ISDIR(stat_buff.st_mode));

    DirState state;
    if (!examine_directory(fd.get(), stat_buff.st_ino, vdp, tsm_managed, state)) return false;

    VPrintf(4, "Calling opendir.\n");
    DirStream dir(fdopendir(fd.get()));
    if (!dir) return fail("open directory");
    fd.release();  // now owned by the stream
    return process_entries(dir.get(), state);
  }

  bool process_entries(DIR *dir, const DirState &state) {
    const int dir_fd = dirfd(dir);
    for (;;) {
      errno = 0;
      const struct dirent *entry = readdir(dir);
      if (entry == nullptr) break;
      VPrintf(3, "Got directory entry: %s\n", entry->d_name);
      if (stop_requested()) return false;
      if (is_dot_or_dotdot(entry->d_name)) {
        VPrintf(3, "  Skipping entry.\n");
        continue;
      }
      if (!process_entry(dir_fd, entry->d_name, state)) return false;
    }
    // A stream that fails part-way would leave the log silently incomplete.
    if (errno != 0) return fail("read directory");
    return true;
  }

  bool process_entry(int dir_fd, const char *name, const DirState &state) {
    const std::size_t dir_len = path_.size();
    if (!path_.append_child(name)) {
      ErrPrintf("Path is too long (at most %zu characters): %s/%s\n", kPathBufferSize - 1,
                path_.c_str(), name);
      return false;
    }
    bool ok = examine_entry(dir_fd, name, state);
    path_.truncate(dir_len);
    return ok;
  }

  bool examine_entry(int dir_fd, const char *name, const DirState &state) {
    struct stat st;
    if (fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return fail("lstat file");
    }
    if (S_ISDIR(st.st_mode)) {
      VPrintf(3, "Recursing, found a directory.\n");
      return process_directory(dir_fd, name, state.local_vdp, state.relation_point);
    }
    if (S_ISREG(st.st_mode))
      return apply_file_rules(FileRef{dir_fd, name, path_.c_str()}, st, state);
    VPrintf(3, "  Not a regular file, Skipping.\n");
    return true;
  }

  PathBuffer path_;
  bool root_fits_ = false;
};

}  // namespace

bool walk_tree() {
  Walker walker(Mount_Point);
  return walker.run();
}
