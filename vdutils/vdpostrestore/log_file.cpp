// The log file: the record of every file that the run reported or removed.
#include "log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "settings.h"
#include "shown_path.h"

namespace {

// With -r: the length of the log's complete lines, and what it will be once
// the line written ahead of the current unlink is confirmed.
off_t confirmed_length = 0;
off_t pending_length = 0;

bool report_write_failure(int err) {
  ErrPrintf("Failed to write logfile %s: %s.\n", LogFileName, std::strerror(err));
  return false;
}

// Cuts the log back to its confirmed lines; errno is kept for the caller.
void truncate_to_confirmed() {
  const int saved = errno;
  const int fd = fileno(LogFile);
  if (ftruncate(fd, confirmed_length) == 0) (void)lseek(fd, confirmed_length, SEEK_SET);
  errno = saved;
}

bool write_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) {
      errno = EIO;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// The kernel's protected-symlinks rule, which a system may have switched
// off: in a world-writable sticky directory, root follows only a link that
// root or the directory's owner made. Any user could plant another and have
// root truncate what it points to.
bool planted_link(int dir_fd, const char *path, const char *name, std::string &reason) {
  struct stat dir {
  }, link{};
  if (fstat(dir_fd, &dir) != 0 || fstatat(dir_fd, name, &link, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISLNK(link.st_mode)) {
    return false;
  }
  const bool shared = (dir.st_mode & S_ISVTX) != 0 && (dir.st_mode & S_IWOTH) != 0;
  if (!shared || link.st_uid == 0 || link.st_uid == dir.st_uid) return false;
  reason = std::string(path) +
           " is a symbolic link in a world-writable sticky directory, owned by neither root nor "
           "the directory's owner";
  return true;
}

}  // namespace

kx::UniqueFd open_log_descriptor(const char *path, std::string &reason) {
  const char *slash = std::strrchr(path, '/');
  const std::string dir = slash == nullptr ? "." : slash == path ? "/" : std::string(path, slash);
  const char *name = slash == nullptr ? path : slash + 1;
  kx::UniqueFd dir_fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir_fd) return dir_fd;
  if (planted_link(dir_fd.get(), path, name, reason)) return kx::UniqueFd();
  // Not truncated yet, and not blocking: a FIFO would wait for a reader,
  // a device would take the lines somewhere no one reads them.
  kx::UniqueFd fd(
      openat(dir_fd.get(), name, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666));
  struct stat st {};
  if (!fd && errno == ENXIO) {  // a FIFO without a reader
    reason = std::string(path) + " is not a regular file";
    return fd;
  }
  if (!fd || fstat(fd.get(), &st) != 0) return kx::UniqueFd();
  if (!S_ISREG(st.st_mode)) {
    reason = std::string(path) + " is not a regular file";
    return kx::UniqueFd();
  }
  const int flags = fcntl(fd.get(), F_GETFL);
  if (ftruncate(fd.get(), 0) != 0 || flags < 0 ||
      fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
    return kx::UniqueFd();
  return fd;
}

bool open_log_file() {
  std::string reason;
  kx::UniqueFd fd = open_log_descriptor(LogFileName, reason);
  if (fd) LogFile = fdopen(fd.get(), "w");
  if (LogFile == nullptr) {
    // The message has always named the default log; administrators' scripts
    // match it, so it stays so even when -f chose another file.
    ErrPrintf("Failed to open logfile %s: %s.\n", kDefaultLogFile,
              reason.empty() ? std::strerror(errno) : reason.c_str());
    return false;
  }
  (void)fd.release();  // the stream owns it now
  // A failed write shows in the stream's error state, checked on flushing.
  (void)std::fprintf(LogFile,
                     "Files with no allocated blocks in non-managed directories under %s.\n"
                     "These files %s removed.\n\n",
                     Mount_Point, Remove_Files ? "were" : "were not");
  if (!Remove_Files) return true;
  // From here on -r writes lines to the descriptor itself, so that each is
  // in the kernel before its file goes.
  if (std::fflush(LogFile) != 0) return report_write_failure(errno);
  confirmed_length = pending_length = ftello(LogFile);
  return true;
}

bool log_reported_file(const char *path) {
  const ShownPath shown(path);
  if (std::fputs(shown.c_str(), LogFile) == EOF || std::fputc('\n', LogFile) == EOF) {
    return report_write_failure(errno);
  }
  return true;
}

bool log_removal_ahead(const char *path) {
  const ShownPath shown(path);
  // One write for the whole line: a run killed in between cannot leave a
  // line without its end, and it costs one system call, not two.
  std::string line(shown.c_str());
  line += '\n';
  const size_t len = line.size() - 1;
  if (!write_all(fileno(LogFile), line.data(), line.size())) {
    const int err = errno;
    truncate_to_confirmed();
    report_write_failure(err);
    ErrPrintf("File %s was not removed.\n", shown.c_str());
    return false;
  }
  pending_length = confirmed_length + static_cast<off_t>(len + 1);
  return true;
}

void confirm_removal() {
  confirmed_length = pending_length;
}

void take_back_removal() {
  truncate_to_confirmed();
}

bool finish_log_file() {
  if (std::fflush(LogFile) != 0 || std::ferror(LogFile)) return report_write_failure(errno);
  return true;
}
