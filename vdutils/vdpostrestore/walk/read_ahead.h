// Read-ahead for --jobs=N: N threads make the walk's reads before the walk
// needs them, and the walk (one thread, in its serial order) takes their
// answers instead of asking again.
//
// What is read ahead is what costs a request per entry and changes nothing:
// a directory's entries (getdents), each entry's statx, a subdirectory's
// open and fstat, and the "BFST" of a regular file that has a size and no
// blocks. Every answer keeps its errno, so that the walk prints the message
// it would have printed had it asked itself. Decisions, messages, the log,
// strips and unlinks stay with the walk.
//
// Work is taken in the walk's depth-first order (each task carries its
// position in that order), so that what the walk needs next is read first;
// and it is bounded: at most a window of entries is held ahead of the walk,
// and a limited number of directories is held open for it. A directory of a
// million entries is read a buffer at a time as the walk moves through it.
//
// Threads: the walk's thread calls everything here; the workers only run
// tasks. One mutex guards the queue and every record's state; a record's
// answers are written by one worker before it is marked done and read by
// the walk after, under that mutex.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libutil/unique_fd.h"
#include "rules/file_rules.h"
#include "walk/dir_view.h"

struct DirAhead;

// One directory entry, read ahead.
struct EntryAhead {
  std::string name;
  std::uint32_t index = 0;  // in its directory's listing
  bool dot = false;         // "." or "..": nothing to read
  int stat_errno = 0;
  struct stat st {};
  bool mount_root = false;
  bool has_bfst = false;  // the "BFST" read below was made
  BfstRead bfst;
  std::shared_ptr<DirAhead> dir;  // a subdirectory opened ahead, or null
  // Set (release) by the thread that read the entry, after its answers.
  std::atomic<bool> done{false};
};

// One directory, opened (by the walk or ahead of it) and listed ahead.
// The fields from `ready` on are guarded by ReadAhead's mutex.
struct DirAhead {
  std::string path;
  kx::UniqueFd fd;
  int open_errno = 0;
  int fstat_errno = 0;
  struct stat st {};
  bool has_reads = false;  // its own attributes were read ahead too
  DirReads reads;
  std::vector<std::uint32_t> position;  // in the walk's depth-first order

  std::deque<std::unique_ptr<EntryAhead>> ready;  // listed, not yet taken
  std::uint32_t listed = 0;                       // entries listed so far
  std::uint32_t claimed = 0;                      // index of the first entry nobody reads yet
  bool at_end = false;
  int list_errno = 0;
  bool listing = false;       // a thread reads its next entries now
  bool walk_waiting = false;  // the walk waits for its listing
};

class ReadAhead {
 public:
  // Starts `jobs` worker threads for a walk below root_dev's file system.
  ReadAhead(unsigned jobs, dev_t root_dev);
  ~ReadAhead();
  ReadAhead(const ReadAhead &) = delete;
  ReadAhead &operator=(const ReadAhead &) = delete;

  // A directory the walk opened itself (the start, or one not opened ahead):
  // its listing starts now.
  std::shared_ptr<DirAhead> adopt(std::string path, kx::UniqueFd fd, const struct stat &st,
                                  std::vector<std::uint32_t> position);
  // The directory of an entry, opened ahead or now (then with its errnos).
  std::shared_ptr<DirAhead> directory_of(DirAhead &parent, EntryAhead &entry);
  // The next entry of dir with its answers, waiting for them (or reading
  // it itself when no thread has taken it yet); null at the end of the
  // listing, with errno 0 or the listing's error.
  std::unique_ptr<EntryAhead> next(DirAhead &dir);

 private:
  // Directories with work, the earliest in the walk's order first.
  struct EarlierFirst {
    bool operator()(const std::shared_ptr<DirAhead> &a, const std::shared_ptr<DirAhead> &b) const {
      return a->position < b->position;
    }
  };
  using Active = std::set<std::shared_ptr<DirAhead>, EarlierFirst>;

  void work();
  bool has_entries_to_read(const DirAhead &dir) const;
  bool may_list(const DirAhead &dir) const;
  void update_active(const std::shared_ptr<DirAhead> &dir);
  void read_chunk(const std::shared_ptr<DirAhead> &dir, std::unique_lock<std::mutex> &lock);
  void list(const std::shared_ptr<DirAhead> &dir, std::unique_lock<std::mutex> &lock);
  void read_entry(DirAhead &dir, EntryAhead &entry);
  void read_directory(DirAhead &dir) const;

  const unsigned jobs_;
  const dev_t root_dev_;
  const std::size_t window_;    // entries held ahead of the walk
  const std::size_t max_dirs_;  // directories held open ahead
  std::mutex mutex_;
  std::condition_variable work_;  // workers wait for work
  std::condition_variable walk_;  // the walk waits for a listing
  Active active_;
  std::size_t entries_ahead_ = 0;
  std::size_t dirs_ahead_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};
