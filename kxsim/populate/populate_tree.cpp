#include "kxsim/populate/populate_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kxsim/core/identity.h"
#include "kxsim/core/sysio.h"

namespace kxsim::cli {

namespace {
constexpr std::uint64_t kFanout = 8;

std::string failure(const std::string &path, int err) {
  return path + ": " + std::strerror(err);
}

std::string join(const std::string &dir, const std::string &name) {
  return dir.empty() ? name : dir + "/" + name;
}

// Directory k's path relative to the top: the first kFanout directories sit
// at the top, directory k >= kFanout below directory k / kFanout - 1.
std::string dir_rel(std::uint64_t k) {
  char name[32];
  (void)std::snprintf(name, sizeof name, "d%05llu", static_cast<unsigned long long>(k));
  return k < kFanout ? std::string(name) : dir_rel(k / kFanout - 1) + "/" + name;
}
}  // namespace

std::string file_name(char prefix, std::uint64_t number) {
  char name[32];
  (void)std::snprintf(name, sizeof name, "%c%07llu", prefix,
                      static_cast<unsigned long long>(number));
  return name;
}

TreeBuilder::TreeBuilder(const Mount &m, StateStore &store, std::string top,
                         std::uint64_t file_size, std::uint64_t seed)
    : mount_(m),
      store_(store),
      top_(std::move(top)),
      top_rel_(relative_to(top_, m.dir)),
      data_(file_size, 'k'),
      random_(seed) {}

std::string TreeBuilder::path(const std::string &rel) const {
  return rel.empty() ? top_ : top_ + "/" + rel;
}

bool TreeBuilder::make_dir(const std::string &rel, std::string &error) {
  std::string p = path(rel);
  if (mkdir(p.c_str(), 0755) != 0 && errno != EEXIST) {
    error = failure(p, errno);
    return false;
  }
  ++counts_.dirs;
  return true;
}

bool TreeBuilder::make_file(int dirfd, const std::string &dir_rel, const std::string &name,
                            bool blockless, const ObjectState &state, std::string &error) {
  std::string rel = join(dir_rel, name);
  sys::Fd fd(sys::open_at(dirfd, name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
  bool ok = fd.valid();
  // A restored file has its size but no data: ftruncate allocates nothing.
  if (ok && blockless) ok = ftruncate(fd.get(), static_cast<off_t>(data_.size())) == 0;
  if (ok && !blockless) {
    errno = EIO;  // what a short write reports
    ok = write(fd.get(), data_.data(), data_.size()) == static_cast<ssize_t>(data_.size());
  }
  Identity id;
  if (!ok || !identify_fd(fd.get(), id)) {
    error = failure(path(rel), errno);
    return false;
  }
  ++counts_.files;
  if (blockless) {
    ++counts_.blockless;
    blockless_.push_back({id.ino, join(top_rel_, rel)});
  }
  if (state.empty()) return true;
  ObjectState st = state;
  st.born = id.born;
  if (!store_.save(mount_.fsid, id.ino, st)) {
    error = "cannot write driver state of " + path(rel) + " under " + store_.dir();
    return false;
  }
  return true;
}

bool TreeBuilder::save_state(const std::string &rel, ObjectState state, std::string &error) {
  Identity id;
  if (!identify_path(path(rel), id)) {
    error = failure(path(rel), errno);
    return false;
  }
  state.born = id.born;
  if (!store_.save(mount_.fsid, id.ino, state)) {
    error = "cannot write driver state of " + path(rel) + " under " + store_.dir();
    return false;
  }
  return true;
}

bool TreeBuilder::record(std::string &error) {
  if (record_blockless(store_, mount_, blockless_)) return true;
  error = "cannot record blockless files under " + store_.dir() + ": " + std::strerror(errno);
  return false;
}

bool build_plain_tree(TreeBuilder &b, std::uint64_t dirs, std::uint64_t files,
                      std::uint64_t percent, std::string &error) {
  std::vector<std::string> rels;
  for (std::uint64_t k = 0; k < dirs; ++k) {
    rels.push_back(dir_rel(k));
    if (!b.make_dir(rels.back(), error)) return false;
  }
  std::vector<bool> blockless(files, false);
  std::fill_n(blockless.begin(), files * percent / 100, true);
  std::shuffle(blockless.begin(), blockless.end(), b.random());
  std::uint64_t step = std::max<std::uint64_t>(dirs, 1);
  for (std::uint64_t d = 0; d < step; ++d) {
    std::string rel = dirs ? rels[d] : std::string();
    sys::Fd dirfd(sys::open_at(AT_FDCWD, b.path(rel).c_str(), O_RDONLY | O_DIRECTORY));
    if (!dirfd.valid()) {
      error = failure(b.path(rel), errno);
      return false;
    }
    for (std::uint64_t f = d; f < files; f += step) {
      if (!b.make_file(dirfd.get(), rel, file_name('f', f), blockless[f], {}, error)) return false;
    }
  }
  return true;
}

}  // namespace kxsim::cli
