// Read-ahead for --jobs=N.
#include "walk/read_ahead.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "rules/dir_attrs.h"
#include "rules/dir_policy.h"
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

// As the walk names a child: no doubled slash below "/".
std::string child_path(const std::string &parent, const std::string &name) {
  return parent.ends_with('/') ? parent + name : parent + "/" + name;
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
    : root_dev_(root_dev), window_(kEntriesPerJob * jobs), max_dirs_(kDirsPerJob * jobs) {
  workers_.reserve(jobs);
  for (unsigned i = 0; i < jobs; ++i) workers_.emplace_back([this] { work(); });
}

ReadAhead::~ReadAhead() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  for (std::thread &worker : workers_) worker.join();
}

std::shared_ptr<DirAhead> ReadAhead::adopt(std::string path, kx::UniqueFd fd, const struct stat &st,
                                           std::vector<std::uint32_t> position) {
  auto dir = std::make_shared<DirAhead>();
  dir->path = std::move(path);
  dir->fd = std::move(fd);
  dir->st = st;
  dir->position = std::move(position);
  std::lock_guard lock(mutex_);
  queue_listing(dir);
  return dir;
}

std::shared_ptr<DirAhead> ReadAhead::directory_of(DirAhead &parent, EntryAhead &entry) {
  if (entry.dir) {
    std::lock_guard lock(mutex_);
    --dirs_ahead_;
    changed_.notify_all();
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
  queue_listing(dir);
  return dir;
}

std::unique_ptr<EntryAhead> ReadAhead::next(DirAhead &dir) {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (!dir.ready.empty() && dir.ready.front()->done) {
      std::unique_ptr<EntryAhead> entry = std::move(dir.ready.front());
      dir.ready.pop_front();
      --entries_ahead_;
      dir.walk_waiting = false;
      changed_.notify_all();
      return entry;
    }
    if (dir.ready.empty() && dir.at_end) {
      dir.walk_waiting = false;
      errno = dir.list_errno;
      return nullptr;
    }
    if (dir.ready.empty() && !dir.walk_waiting) {
      dir.walk_waiting = true;  // the listing goes ahead of the window
      changed_.notify_all();
    }
    changed_.wait(lock);
  }
}

void ReadAhead::queue_listing(const std::shared_ptr<DirAhead> &dir) {
  std::vector<std::uint32_t> position = dir->position;
  position.push_back(dir->listed);
  dir->listing = true;
  queue_.insert(Task{std::move(position), dir, nullptr});
  changed_.notify_all();
}

bool ReadAhead::runnable(const Task &task) const {
  if (task.entry != nullptr) return true;
  return task.dir->walk_waiting || entries_ahead_ < window_;
}

void ReadAhead::work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopping_) return;
    auto found = std::find_if(queue_.begin(), queue_.end(),
                              [this](const Task &task) { return runnable(task); });
    if (found == queue_.end()) {
      changed_.wait(lock);
      continue;
    }
    const Task task = *found;
    queue_.erase(found);
    lock.unlock();
    run(task);
    lock.lock();
  }
}

void ReadAhead::run(const Task &task) {
  if (task.entry == nullptr) {
    list(task.dir);
    return;
  }
  read_entry(*task.dir, *task.entry);
  std::lock_guard lock(mutex_);
  task.entry->done = true;
  changed_.notify_all();
}

// One getdents of dir: its entries join the queue in the walk's order, and
// the listing goes on behind them until the end.
void ReadAhead::list(const std::shared_ptr<DirAhead> &shared) {
  DirAhead &dir = *shared;
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
    entry->done = entry->dot;
    listed.push_back(std::move(entry));
  }
  std::lock_guard lock(mutex_);
  for (auto &entry : listed) {
    entry->index = dir.listed++;
    if (!entry->dot) {
      std::vector<std::uint32_t> position = dir.position;
      position.push_back(entry->index);
      queue_.insert(Task{std::move(position), shared, entry.get()});
    }
    ++entries_ahead_;
    dir.ready.push_back(std::move(entry));
  }
  dir.listing = false;
  if (n <= 0) {
    dir.at_end = true;
    dir.list_errno = err;
  } else {
    queue_listing(shared);
  }
  changed_.notify_all();
}

void ReadAhead::read_entry(DirAhead &dir, EntryAhead &entry) {
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
    queue_listing(sub);
  }
  if (opened && S_ISDIR(sub->st.st_mode)) {
    sub->reads.bfst = read_dir_bfst(sub->fd.get());
    sub->reads.relation = read_relation_attrs(sub->fd.get(), sub->path.c_str(), sub->st.st_ino);
    sub->has_reads = true;
  }
  std::lock_guard lock(mutex_);
  entry.dir = sub;
}
