// Read-ahead for --jobs=N.
#include "walk/read_ahead.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "libutil/kxlog.h"
#include "rules/dir_attrs.h"
#include "rules/dir_policy.h"
#include "settings.h"
#include "walk/mount_root.h"

namespace {

constexpr int kDirOpenFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW;
// As much as one getdents reads: the walk's own buffer size.
constexpr std::size_t kListBufferSize = 32768;
// Enough entries ahead to keep every worker busy across a few directories,
// few enough that a million-entry directory costs well under a megabyte
// per worker.
constexpr std::size_t kEntriesPerJob = 512;
constexpr std::size_t kDirsPerJob = 16;
// The most entries one thread takes at once.
constexpr std::uint32_t kMaxChunk = 64;

// As the walk names a child: no doubled slash below "/".
std::string child_path(const std::string &parent, const std::string &name) {
  return parent.ends_with('/') ? parent + name : parent + "/" + name;
}

// The libraries' log lines come from the walk alone: a read-ahead thread's
// request that fails is made again by the walk, which then logs it in its
// place in the output.
thread_local bool t_reading_ahead = false;
kxfs_logfn_t g_walk_logfn = nullptr;
kxfs_logfn_t g_walk_debugfn = nullptr;

std::string formatted(const char *format, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  const int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
  if (n > 0) (void)std::vsnprintf(text.data(), text.size() + 1, format, ap);
  return text;
}

void walk_only_log(int level, const char *format, ...) {
  if (t_reading_ahead) return;
  va_list ap;
  va_start(ap, format);
  const std::string text = formatted(format, ap);
  va_end(ap);
  g_walk_logfn(level, "%s", text.c_str());
}

void walk_only_debug(int level, const char *format, ...) {
  if (t_reading_ahead) return;
  va_list ap;
  va_start(ap, format);
  const std::string text = formatted(format, ap);
  va_end(ap);
  g_walk_debugfn(level, "%s", text.c_str());
}

bool is_dot_or_dotdot(const char *name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// What the walk reads of a file whose rules may need its "BFST".
bool may_need_bfst(const struct stat &st) {
  return S_ISREG(st.st_mode) && st.st_blocks == 0 && st.st_size != 0;
}

}  // namespace

ReadAhead::ReadAhead(unsigned jobs, dev_t root_dev)
    : jobs_(jobs),
      root_dev_(root_dev),
      window_(kEntriesPerJob * jobs),
      max_dirs_(kDirsPerJob * jobs) {
  // Set before any thread starts, restored after all have ended.
  g_walk_logfn = __kxfs_logfn;
  g_walk_debugfn = __kxfs_debugfn;
  __kxfs_logfn = walk_only_log;
  __kxfs_debugfn = walk_only_debug;
  workers_.reserve(jobs);
  for (unsigned i = 0; i < jobs; ++i) workers_.emplace_back([this] { work(); });
}

ReadAhead::~ReadAhead() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  for (std::thread &worker : workers_) worker.join();
  __kxfs_logfn = g_walk_logfn;
  __kxfs_debugfn = g_walk_debugfn;
}

std::shared_ptr<DirAhead> ReadAhead::adopt(std::string path, kx::UniqueFd fd, const struct stat &st,
                                           std::vector<std::uint32_t> position) {
  auto dir = std::make_shared<DirAhead>();
  dir->path = std::move(path);
  dir->fd = std::move(fd);
  dir->st = st;
  dir->position = std::move(position);
  std::lock_guard lock(mutex_);
  update_active(dir);
  return dir;
}

std::shared_ptr<DirAhead> ReadAhead::directory_of(DirAhead &parent, EntryAhead &entry) {
  if (entry.dir) {
    std::lock_guard lock(mutex_);
    --dirs_ahead_;
    return std::move(entry.dir);
  }
  // Not opened ahead (too many were): opened now, as the walk would.
  auto dir = std::make_shared<DirAhead>();
  dir->path = child_path(parent.path, entry.name);
  dir->position = parent.position;
  dir->position.push_back(entry.index);
  dir->fd = kx::UniqueFd(openat(parent.fd.get(), entry.name.c_str(), kDirOpenFlags));
  if (!dir->fd) {
    dir->open_errno = errno;
    return dir;
  }
  if (fstat(dir->fd.get(), &dir->st) != 0) {
    dir->fstat_errno = errno;
    return dir;
  }
  std::lock_guard lock(mutex_);
  update_active(dir);
  return dir;
}

std::unique_ptr<EntryAhead> ReadAhead::next(DirAhead &dir) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!dir.ready.empty()) {
      EntryAhead &front = *dir.ready.front();
      if (!front.done.load(std::memory_order_acquire) && front.index == dir.claimed) {
        // Nobody has taken it: the walk reads it itself rather than wait.
        ++dir.claimed;
        lock.unlock();
        read_entry(dir, front);
        front.done.store(true, std::memory_order_release);
        lock.lock();
      }
      if (!front.done.load(std::memory_order_acquire)) {
        lock.unlock();
        front.done.wait(false, std::memory_order_acquire);
        lock.lock();
      }
      std::unique_ptr<EntryAhead> entry = std::move(dir.ready.front());
      dir.ready.pop_front();
      if (entries_ahead_-- == window_) work_.notify_all();  // room to list again
      return entry;
    }
    if (dir.at_end) {
      errno = dir.list_errno;
      return nullptr;
    }
    dir.walk_waiting = true;  // its listing goes ahead of the window
    work_.notify_all();
    walk_.wait(lock);
    dir.walk_waiting = false;
  }
}

bool ReadAhead::has_entries_to_read(const DirAhead &dir) const {
  return dir.claimed < dir.listed;
}

bool ReadAhead::may_list(const DirAhead &dir) const {
  return !dir.at_end && !dir.listing && (dir.walk_waiting || entries_ahead_ < window_);
}

// A directory is in active_ while it has entries nobody reads or may be
// listed further.
void ReadAhead::update_active(const std::shared_ptr<DirAhead> &dir) {
  if (has_entries_to_read(*dir) || (!dir->at_end && !dir->listing)) {
    if (active_.insert(dir).second) work_.notify_one();
  } else {
    active_.erase(dir);
  }
}

void ReadAhead::work() {
  t_reading_ahead = true;
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    auto found = std::find_if(active_.begin(), active_.end(), [this](const auto &dir) {
      return has_entries_to_read(*dir) || may_list(*dir);
    });
    if (found == active_.end()) {
      work_.wait(lock);
      continue;
    }
    const std::shared_ptr<DirAhead> dir = *found;
    if (has_entries_to_read(*dir))
      read_chunk(dir, lock);
    else
      list(dir, lock);
  }
}

// Takes the next entries of dir nobody reads: a share that keeps every
// thread busy on a slow file system, a run long enough to cost few locks
// on a fast one.
void ReadAhead::read_chunk(const std::shared_ptr<DirAhead> &dir,
                           std::unique_lock<std::mutex> &lock) {
  const std::uint32_t waiting = dir->listed - dir->claimed;
  const std::uint32_t count = std::clamp<std::uint32_t>(
      waiting / (2 * jobs_), 1, std::min<std::uint32_t>(kMaxChunk, waiting));
  EntryAhead *chunk[kMaxChunk];
  const std::uint32_t front = dir->ready.front()->index;
  for (std::uint32_t i = 0; i < count; ++i) chunk[i] = dir->ready[dir->claimed - front + i].get();
  dir->claimed += count;
  update_active(dir);
  lock.unlock();
  for (std::uint32_t i = 0; i < count; ++i) {
    read_entry(*dir, *chunk[i]);
    chunk[i]->done.store(true, std::memory_order_release);
    chunk[i]->done.notify_one();
  }
  lock.lock();
}

// One getdents of dir: its entries join the ones to read, and the listing
// goes on behind them until the end.
void ReadAhead::list(const std::shared_ptr<DirAhead> &shared, std::unique_lock<std::mutex> &lock) {
  DirAhead &dir = *shared;
  dir.listing = true;
  update_active(shared);
  lock.unlock();
  thread_local std::unique_ptr<char[]> buffer(new char[kListBufferSize]);
  const ssize_t n = getdents64(dir.fd.get(), buffer.get(), kListBufferSize);
  const int err = n < 0 ? errno : 0;
  std::vector<std::unique_ptr<EntryAhead>> listed;
  for (ssize_t offset = 0; offset < n;) {
    // new[] aligns for any fundamental type, and the kernel keeps every
    // record's length a multiple of 8.
    const auto *record = reinterpret_cast<const struct dirent64 *>(buffer.get() + offset);
    offset += record->d_reclen;
    auto entry = std::make_unique<EntryAhead>();
    entry->name = record->d_name;
    entry->dot = is_dot_or_dotdot(record->d_name);
    listed.push_back(std::move(entry));
  }
  lock.lock();
  for (auto &entry : listed) {
    entry->index = dir.listed++;
    ++entries_ahead_;
    dir.ready.push_back(std::move(entry));
  }
  dir.listing = false;
  if (n <= 0) {
    dir.at_end = true;
    dir.list_errno = err;
  }
  update_active(shared);
  work_.notify_all();
  walk_.notify_all();
}

// What the walk reads of a directory before its entries: its "BFST", a
// handle on the policy it names (a failure to open one is left for the
// walk to meet again, with its message), and its relation-point attributes.
void ReadAhead::read_directory(DirAhead &dir) const {
  DirReads &reads = dir.reads;
  reads.bfst = read_dir_bfst(dir.fd.get());
  if (reads.bfst.read_errno == 0 && reads.bfst.len >= kBlkKeyEnd) {
    // The walk opens the policy on the directory's path, or on the mount
    // point when that path is too long for the driver.
    const bool by_path = dir.path.size() < DM_PATH_MAX || dir.st.st_dev != root_dev_;
    vdpol_hndl_s *handle = nullptr;
    char err_msg[256];
    if (vdpol_open(by_path ? dir.path.c_str() : Mount_Point, &handle, err_msg, sizeof err_msg) == 0)
      reads.policy.reset(handle);
  }
  reads.relation = read_relation_attrs(dir.fd.get(), dir.path.c_str(), dir.st.st_ino);
  dir.has_reads = true;
}

void ReadAhead::read_entry(DirAhead &dir, EntryAhead &entry) {
  if (entry.dot) return;
  if (!stat_entry(dir.fd.get(), entry.name.c_str(), entry.st, entry.mount_root)) {
    entry.stat_errno = errno;
    return;
  }
  if (may_need_bfst(entry.st)) {
    entry.bfst = read_bfst(FileRef{dir.fd.get(), entry.name.c_str(), nullptr});
    entry.has_bfst = true;
    return;
  }
  if (!S_ISDIR(entry.st.st_mode) || entry.mount_root || entry.st.st_dev != root_dev_) return;
  {
    std::lock_guard lock(mutex_);
    if (dirs_ahead_ >= max_dirs_) return;
    ++dirs_ahead_;
  }
  auto sub = std::make_shared<DirAhead>();
  sub->path = child_path(dir.path, entry.name);
  sub->position = dir.position;
  sub->position.push_back(entry.index);
  sub->fd = kx::UniqueFd(openat(dir.fd.get(), entry.name.c_str(), kDirOpenFlags));
  if (!sub->fd)
    sub->open_errno = errno;
  else if (fstat(sub->fd.get(), &sub->st) != 0)
    sub->fstat_errno = errno;
  const bool opened = sub->open_errno == 0 && sub->fstat_errno == 0;
  if (opened) {
    // Listed by another thread while this one reads the directory's own
    // attributes.
    std::lock_guard lock(mutex_);
    update_active(sub);
  }
  if (opened && S_ISDIR(sub->st.st_mode)) read_directory(*sub);
  std::lock_guard lock(mutex_);
  entry.dir = sub;
}
