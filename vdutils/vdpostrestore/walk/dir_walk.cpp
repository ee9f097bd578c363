// The depth-first walk of the tree under Mount_Point.
#include "walk/dir_walk.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "kxdmapi/kxdmapi_types.h"
#include "libutil/dopanic.h"
#include "libutil/unique_fd.h"
#include "rules/dir_state.h"
#include "rules/file_rules.h"
#include "rules/policy_info.h"
#include "run_counts.h"
#include "settings.h"
#include "shown_path.h"
#include "stop_signals.h"
#include "walk/ancestors.h"
#include "walk/dir_entries.h"
#include "walk/dir_view.h"
#include "walk/mount_root.h"
#include "walk/path_buffer.h"
#include "walk/read_ahead.h"

static const char kx_source_path[] = "vdutils/vdpostrestore";

namespace {

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

bool is_dot_or_dotdot(const char *name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

class Walker {
 public:
  explicit Walker(const char *root) { path_.assign(root); }

  bool run() {
    VPrintf(1, "Processing directory %s.\n", ShownPath(path_.c_str()).c_str());
    const DepthLevel level(depth_);
    // The mount point itself may be reached through a symbolic link, as the
    // administrator named it; nothing below it is.
    kx::UniqueFd fd(open(path_.c_str(), kDirOpenFlags));
    if (!fd) return fail_open(false);
    struct stat stat_buff;
    if (fstat(fd.get(), &stat_buff) != 0) return fail("stat directory");
    KX_ASSERT(S_ISDIR(stat_buff.st_mode));
    root_dev_ = stat_buff.st_dev;
    StartContext context;
    if (!read_ancestors(fd.get(), stat_buff, context)) return false;
    if (Jobs > 1) {
      ahead_ = std::make_unique<ReadAhead>(static_cast<unsigned>(Jobs), root_dev_);
      const std::shared_ptr<DirAhead> dir =
          ahead_->adopt(path_.c_str(), std::move(fd), stat_buff, {});
      return process_directory_ahead(*dir, context.loaded.get(), context.relation_point);
    }
    return process_open_directory(std::move(fd), stat_buff, context.loaded.get(),
                                  context.relation_point);
  }

 private:
  // "Failed to <what> <path>: <reason>." for the entry being examined.
  bool fail(const char *what) {
    const int err = errno;
    ErrPrintf("Failed to %s %s: %s.\n", what, ShownPath(path_.c_str()).c_str(), std::strerror(err));
    explain_descriptor_limit(err);
    return false;
  }
  // The directory is opened before anything is asked of it, so a failure is
  // reported as the open it stands for: without an inherited policy the
  // first thing done with the directory is reading its own policy
  // attribute, whose open has always been reported by get_dir_vdp; with one
  // it is listing the entries.
  bool fail_open(bool policy_inherited) {
    if (policy_inherited) return fail("open directory");
    const int err = errno;
    ErrPrintf("get_dir_vdp: Cannot open %s, %s\n", ShownPath(path_.c_str()).c_str(),
              std::strerror(err));
    explain_descriptor_limit(err);
    return false;
  }

  // The walk holds one descriptor per level: a tree deeper than the
  // descriptor limit cannot be walked, and the administrator should be told
  // that this, not the directory, is the cause.
  void explain_descriptor_limit(int err) const {
    // Besides the walk's own, a few descriptors are the process's and the
    // libraries' (standard streams, log, driver channel, open-file cache).
    constexpr rlim_t kOtherDescriptors = 32;
    struct rlimit limit {};
    if (err != EMFILE || getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
        depth_ + kOtherDescriptors < limit.rlim_cur)
      return;
    ErrPrintf("The tree is deeper than the limit of %llu open files allows.\n",
              static_cast<unsigned long long>(limit.rlim_cur));
  }

  // The path the policy API resolves for this directory: its own, or, when
  // that is too long for path requests, the mount point of the same file
  // system (a policy handle needs only the file system).
  const char *policy_path(dev_t dir_dev) const {
    if (path_.size() < DM_PATH_MAX || dir_dev != root_dev_) return path_.c_str();
    return Mount_Point;
  }

  // Works out the policy view and relation point of the directory open on
  // `fd` (steps that precede reading its entries), and strips its own
  // policy information where that is stale.
  bool examine_directory(int fd, const struct stat &dir_st, const Vdp_t *vdp, bool tsm_managed,
                         DirState &state, const DirReads *ahead = nullptr) {
    ++Run_Counts.directories;
    if (!read_dir_view(fd, path_.c_str(), policy_path(dir_st.st_dev), dir_st.st_ino, vdp,
                       tsm_managed, state, ahead)) {
      explain_descriptor_limit(errno);  // the requests open files by handle
      return false;
    }
    if (may_strip_policy_info(state)) remove_vdpolicy_info_fd(fd, path_.c_str(), 1);
    return true;
  }

  // The directory opened must be the entry examined: one swapped in
  // between, by a rename or a new directory in its place, would be walked
  // with the policy view of another.
  bool opened_as_examined(const struct stat &opened, const struct stat &entry) const {
    if (opened.st_dev != entry.st_dev || opened.st_ino != entry.st_ino) {
      ErrPrintf("Directory %s changed while it was being processed.\n",
                ShownPath(path_.c_str()).c_str());
      return false;
    }
    return true;
  }

  // A record inherited from the parent (vdp) is the parent's; one loaded
  // here is freed when this directory is done.
  bool process_directory(int parent_fd, const char *name, const struct stat &entry,
                         const Vdp_t *vdp, bool tsm_managed) {
    VPrintf(1, "Processing directory %s.\n", ShownPath(path_.c_str()).c_str());
    const DepthLevel level(depth_);
    kx::UniqueFd fd(openat(parent_fd, name, kDirOpenFlags | O_NOFOLLOW));
    if (!fd) return fail_open(vdp != nullptr);
    struct stat stat_buff;
    if (fstat(fd.get(), &stat_buff) != 0) return fail("stat directory");
    KX_ASSERT(S_ISDIR(stat_buff.st_mode));
    if (!opened_as_examined(stat_buff, entry)) return false;
    return process_open_directory(std::move(fd), stat_buff, vdp, tsm_managed);
  }

  bool process_open_directory(kx::UniqueFd fd, const struct stat &dir_st, const Vdp_t *vdp,
                              bool tsm_managed) {
    DirState state;
    if (!examine_directory(fd.get(), dir_st, vdp, tsm_managed, state)) return false;
    VPrintf(4, "Calling opendir.\n");
    DirEntries entries(std::move(fd));
    return process_entries(entries, state);
  }

  bool process_entries(DirEntries &entries, const DirState &state) {
    return for_each_entry([&] { return entries.next(); },
                          [](const char *name) { return name; },
                          [&](const char *name) { return examine_entry(entries.fd(), name, state); });
  }

  // The one entry loop of both walks; they differ in where the next entry
  // comes from (a listing, or the read-ahead window) and how it is examined.
  template <typename Next, typename NameOf, typename Examine>
  bool for_each_entry(Next next, NameOf name_of, Examine examine) {
    while (auto entry = next()) {
      const char *name = name_of(entry);
      switch (begin_entry(name)) {
        case Entry::kStop:
          return false;
        case Entry::kSkip:
          continue;
        case Entry::kExamine:
          break;
      }
      if (!with_entry_path(name, [&] { return examine(entry); })) return false;
    }
    return end_of_entries();
  }

  enum class Entry { kExamine, kSkip, kStop };
  // What every entry gets before it is examined.
  Entry begin_entry(const char *name) {
    tick_progress();
    VPrintf(3, "Got directory entry: %s\n", name);
    if (stop_requested()) return Entry::kStop;
    if (is_dot_or_dotdot(name)) {
      VPrintf(3, "  Skipping entry.\n");
      return Entry::kSkip;
    }
    return Entry::kExamine;
  }

  // A listing that fails part-way would leave the log silently incomplete.
  bool end_of_entries() {
    if (errno != 0) return fail("read directory");
    return true;
  }

  template <typename Examine>
  bool with_entry_path(const char *name, Examine examine) {
    const std::size_t dir_len = path_.size();
    path_.append_child(name);
    bool ok = examine();
    path_.truncate(dir_len);
    return ok;
  }

  bool examine_entry(int dir_fd, const char *name, const DirState &state) {
    struct stat st;
    bool mount_root = false;
    if (!stat_entry(dir_fd, name, st, mount_root)) return fail("lstat file");
    return apply_entry_rules(st, mount_root, FileRef{dir_fd, name, path_.c_str()}, state, [&] {
      return process_directory(dir_fd, name, st, state.local_vdp, state.relation_point);
    });
  }

  // An examined entry: a directory is recursed into (unless another mount
  // is rooted there), a regular file gets the file rules.
  template <typename Recurse>
  bool apply_entry_rules(const struct stat &st, bool mount_root, const FileRef &file,
                         const DirState &state, Recurse recurse) {
    if (S_ISDIR(st.st_mode)) {
      if (mount_root || st.st_dev != root_dev_) {
        VPrintf(1, "Skipping directory %s: another mount is rooted there.\n",
                ShownPath(path_.c_str()).c_str());
        return true;
      }
      VPrintf(3, "Recursing, found a directory.\n");
      return recurse();
    }
    if (S_ISREG(st.st_mode)) return apply_file_rules(file, st, state);
    VPrintf(3, "  Not a regular file, Skipping.\n");
    return true;
  }

  // The same walk over answers read ahead (--jobs): the order, the
  // decisions and every message are the serial walk's.
  bool process_directory_ahead(DirAhead &dir, const Vdp_t *vdp, bool tsm_managed) {
    DirState state;
    if (!examine_directory(dir.fd.get(), dir.st, vdp, tsm_managed, state,
                           dir.has_reads ? &dir.reads : nullptr))
      return false;
    VPrintf(4, "Calling opendir.\n");
    using Ahead = std::unique_ptr<EntryAhead>;
    return for_each_entry([&] { return ahead_->next(dir); },
                          [](const Ahead &entry) { return entry->name.c_str(); },
                          [&](Ahead &entry) { return examine_entry_ahead(dir, *entry, state); });
  }

  bool examine_entry_ahead(DirAhead &dir, EntryAhead &entry, const DirState &state) {
    if (entry.stat_errno != 0) {
      errno = entry.stat_errno;
      return fail("lstat file");
    }
    const FileRef file{
        dir.fd.get(), entry.name.c_str(), path_.c_str(),  entry.has_bfst ? &entry.bfst : nullptr,
        true,         entry.st.st_dev,    entry.st.st_ino};
    return apply_entry_rules(entry.st, entry.mount_root, file, state, [&] {
      return enter_directory_ahead(dir, entry, state.local_vdp, state.relation_point);
    });
  }

  bool enter_directory_ahead(DirAhead &parent, EntryAhead &entry, const Vdp_t *vdp,
                             bool tsm_managed) {
    VPrintf(1, "Processing directory %s.\n", ShownPath(path_.c_str()).c_str());
    const DepthLevel level(depth_);
    const std::shared_ptr<DirAhead> dir = ahead_->directory_of(parent, entry);
    if (dir->open_errno != 0) {
      errno = dir->open_errno;
      return fail_open(vdp != nullptr);
    }
    if (dir->fstat_errno != 0) {
      errno = dir->fstat_errno;
      return fail("stat directory");
    }
    KX_ASSERT(S_ISDIR(dir->st.st_mode));
    if (!opened_as_examined(dir->st, entry.st)) return false;
    return process_directory_ahead(*dir, vdp, tsm_managed);
  }

  // Counts the levels of directories open at once.
  struct DepthLevel {
    explicit DepthLevel(rlim_t &depth) : depth_(depth) { ++depth_; }
    ~DepthLevel() { --depth_; }
    DepthLevel(const DepthLevel &) = delete;
    DepthLevel &operator=(const DepthLevel &) = delete;
    rlim_t &depth_;
  };

  PathBuffer path_;
  std::unique_ptr<ReadAhead> ahead_;  // with --jobs above 1
  dev_t root_dev_ = 0;
  rlim_t depth_ = 0;
};

}  // namespace

bool walk_tree() {
  Walker walker(Mount_Point);
  return walker.run();
}
