// Call tracing: appends lines to "dmapi.log" while that file exists.
#include "kxdmapi/kxdmapi_debug.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "libutil/getroot.h"
#include "libutil/snprintf.h"

extern "C" {
int32_t kxdmapi_debug_flags = 1;
int32_t kxdmapi_call_depth = 0;
char *kxdmapi_debug_file = nullptr;
int32_t kxdmapi_debug_fd = -1;
const char *kxdmapi_debug_header = "KxDmapiDebug";
}

namespace {

constexpr size_t kMessageSize = 1024;
constexpr size_t kLineSize = 1024 + 128;
constexpr int kMaxReopens = 2;

pthread_once_t debug_file_once = PTHREAD_ONCE_INIT;

// The path is made once; later threads see the published pointer.
void make_debug_file() {
  char path[1024];
  KxSnprintf(path, sizeof path, "%s/%s", GetKxfsDebugDir(), "dmapi.log");
  __atomic_store_n(&kxdmapi_debug_file, strdup(path), __ATOMIC_RELEASE);
}

void tracing_off() {
  __atomic_store_n(&kxdmapi_debug_flags, 0, __ATOMIC_RELAXED);
}

// Opens the trace file if no descriptor is open. The file is never created:
// its absence is the administrator's way of keeping tracing off. Returns the
// descriptor, or -1 after switching tracing off.
int trace_fd(const char *file) {
  int fd = __atomic_load_n(&kxdmapi_debug_fd, __ATOMIC_ACQUIRE);
  if (fd >= 0) return fd;
  fd = open(file, O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) {
    if (errno != ENOENT)
      syslog(LOG_DEBUG, "kxdmapi_debug: open(%s) failed, errno/%d.", file, errno);
    tracing_off();
    return -1;
  }
  // Another thread may have opened it meanwhile: keep one descriptor.
  int expected = -1;
  if (!__atomic_compare_exchange_n(&kxdmapi_debug_fd, &expected, fd, false, __ATOMIC_ACQ_REL,
                                   __ATOMIC_ACQUIRE)) {
    close(fd);
    return expected;
  }
  return fd;
}

// Forgets a descriptor the system no longer knows (EBADF).
void forget_fd(int fd) {
  int expected = fd;
  __atomic_compare_exchange_n(&kxdmapi_debug_fd, &expected, -1, false, __ATOMIC_ACQ_REL,
                              __ATOMIC_ACQUIRE);
}

size_t format_time(char *buf, size_t size, long *usec) {
  struct timeval tv {};
  gettimeofday(&tv, nullptr);
  *usec = static_cast<long>(tv.tv_usec);
  struct tm tm_now {};
  time_t secs = tv.tv_sec;
  if (localtime_r(&secs, &tm_now) == nullptr)
    return static_cast<size_t>(KxSnprintf(buf, size, "????"));
  size_t len = strftime(buf, size, "%m%d %H:%M:%S", &tm_now);
  if (len == 0) len = static_cast<size_t>(KxSnprintf(buf, size, "????"));
  return len;
}

// Builds the whole line; a cut line still ends with its newline.
size_t build_line(char *line, const char *message, int depth) {
  char stamp[64];
  long usec = 0;
  format_time(stamp, sizeof stamp, &usec);
  int len = KxSnprintf(line, kLineSize, "%s.%06d: %s(pid %d): %*s%s", stamp, static_cast<int>(usec),
                       kxdmapi_debug_header, static_cast<int>(getpid()), depth, "", message);
  if (len < 0) return 0;
  if (static_cast<size_t>(len) >= kLineSize) {
    line[kLineSize - 2] = '\n';
    return kLineSize - 1;
  }
  return static_cast<size_t>(len);
}

int current_depth() {
  int depth = __atomic_load_n(&kxdmapi_call_depth, __ATOMIC_RELAXED);
  if (depth < 0) {
    __atomic_store_n(&kxdmapi_call_depth, 0, __ATOMIC_RELAXED);
    depth = 0;
  }
  return depth;
}

void write_trace(const char *file, const char *message) {
  int fd = trace_fd(file);
  if (fd < 0) return;
  char line[kLineSize];
  for (int reopens = 0;; ++reopens) {
    size_t len = build_line(line, message, current_depth());
    ssize_t written = write(fd, line, len);
    if (written >= 0 && static_cast<size_t>(written) == len) return;
    int write_errno = errno;
    syslog(LOG_DEBUG, "kxdmapi_debug: write(%s) failed.", file);
    if (written >= 0 || write_errno != EBADF || reopens == kMaxReopens) return;
    forget_fd(fd);
    fd = trace_fd(file);
    if (fd < 0) return;
  }
}

}  // namespace

extern "C" void kxdmapi_debug(const char *format, ...) {
  if (__atomic_load_n(&kxdmapi_debug_flags, __ATOMIC_RELAXED) == 0) return;
  pthread_once(&debug_file_once, make_debug_file);
  const char *file = __atomic_load_n(&kxdmapi_debug_file, __ATOMIC_ACQUIRE);
  if (file == nullptr) return;
  current_depth();
  int saved_errno = errno;
  char message[kMessageSize];
  message[0] = '\0';
  va_list ap;
  va_start(ap, format);
  int len = KxVsnprintf(message, sizeof message, format, ap);
  va_end(ap);
  // A cut message keeps its line end so the next line starts afresh.
  if (len >= static_cast<int>(sizeof message)) message[sizeof message - 2] = '\n';
  write_trace(file, message);
  errno = saved_errno;
}
