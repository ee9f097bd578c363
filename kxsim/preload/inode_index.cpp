#include "kxsim/preload/inode_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <vector>

#include "kxsim/core/handle.h"
#include "kxsim/core/sysio.h"

namespace kxsim {

namespace {
constexpr auto kMissThrottle = std::chrono::seconds(1);

std::string join(const std::string &rel, const char *name) {
  return rel.empty() ? std::string(name) : rel + "/" + name;
}
}  // namespace

void InodeIndex::note(const Mount &m, std::uint64_t ino, std::string_view rel_path) {
  mounts_[m.fsid].paths[ino & kInodeMask] = std::string(rel_path);
}

void InodeIndex::forget(const Mount &m, std::uint64_t ino) {
  auto it = mounts_.find(m.fsid);
  if (it != mounts_.end()) it->second.paths.erase(ino & kInodeMask);
}

bool InodeIndex::verify(const Mount &m, std::uint64_t ino, const std::string &rel, Identity &id) {
  std::string abs = rel.empty() ? m.dir : m.dir + "/" + rel;
  return identify_path(abs, id) && (id.ino & kInodeMask) == ino;
}

std::optional<std::string> InodeIndex::lookup(const Mount &m, std::uint64_t ino, Identity &id) {
  ino &= kInodeMask;
  PerMount &pm = mounts_[m.fsid];
  auto it = pm.paths.find(ino);
  if (it != pm.paths.end() && verify(m, ino, it->second, id)) return it->second;
  auto now = std::chrono::steady_clock::now();
  if (pm.missing.count(ino) != 0 && now - pm.last_walk < kMissThrottle) return std::nullopt;
  rebuild(m, pm);
  it = pm.paths.find(ino);
  if (it != pm.paths.end() && verify(m, ino, it->second, id)) return it->second;
  pm.missing.insert(ino);
  return std::nullopt;
}

void InodeIndex::rebuild(const Mount &m, PerMount &pm) {
  pm.paths.clear();
  pm.missing.clear();
  pm.last_walk = std::chrono::steady_clock::now();
  struct stat st;
  if (lstat(m.dir.c_str(), &st) != 0) return;
  pm.paths[st.st_ino & kInodeMask] = "";
  std::vector<std::string> pending{""};
  while (!pending.empty()) {
    std::string rel = std::move(pending.back());
    pending.pop_back();
    std::string abs = rel.empty() ? m.dir : m.dir + "/" + rel;
    const sys::AtPath at = sys::at_path(abs);
    int fd = sys::open_at(at.dirfd(), at.rest.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW);
    if (fd < 0) continue;
    DIR *d = fdopendir(fd);
    if (!d) {
      sys::close_fd(fd);
      continue;
    }
    while (dirent *e = readdir(d)) {
      if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
      std::string child = join(rel, e->d_name);
      pm.paths[e->d_ino & kInodeMask] = child;
      bool is_dir = e->d_type == DT_DIR;
      if (e->d_type == DT_UNKNOWN) {
        struct stat cst;
        is_dir = fstatat(fd, e->d_name, &cst, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(cst.st_mode);
      }
      if (is_dir) pending.push_back(std::move(child));
    }
    closedir(d);
  }
}

}  // namespace kxsim
