// Assertions and panic: one replaceable hook that ends the process, and the
// checked-build panic that only test installations turn into a real panic.
#include "libutil/dopanic.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "libutil/priv_check.h"
#include "libutil/snprintf.h"

namespace {

constexpr size_t kPanicLineSize = 2048;
constexpr size_t kCheckedMessageSize = 1024;
constexpr int kLogInfo = 0;    // level of "enabled" reasons
constexpr int kLogNotice = 1;  // level of "disabled" reasons
constexpr int kLogError = 3;
constexpr const char kCheckedTouchFile[] = "/usr/burn/test/checked_build/ENABLED";

void write_stderr(std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = ::write(STDERR_FILENO, text.data(), text.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return;
    }
    text.remove_prefix(static_cast<size_t>(n));
  }
}

const char *or_empty(const char *s) {
  return s != nullptr ? s : "";
}

bool is_orbulan_type(const char *type) {
  return type != nullptr && (std::strcmp(type, "tarnhol") == 0 || std::strcmp(type, "merrow") == 0);
}

// Counts calls; the reason is logged on the first only. Atomic so that
// concurrent first calls log it exactly once.
std::atomic<uint32_t> called{0};

}  // namespace

extern "C" {

DoPanicFn_t DoPanicFn = DefaultPanic;
char PanicNomenclature[KX_PANIC_NOMENCLATURE_SIZE] = "PANIC";
int32_t PanicNoCoreExitCode = 1;
WriteLog_t WriteLog = nullptr;

void DoPanic(const char *msg, const char *expr, int dump_core, const char *file, int line) {
  DoPanicFn_t hook = DoPanicFn;
  if (hook != nullptr) hook(msg, expr, dump_core, file, line);
  _exit(1);  // a hook that returns must not let the caller run on
}

void DefaultPanic(const char *msg, const char *expr, int dump_core, const char *file, int line) {
  char text[kPanicLineSize + 1];  // room for the newline stderr gets
  const int n =
      KxSnprintf(text, kPanicLineSize, "%s: %s %s\"%s\" file %s, line %d", PanicNomenclature,
                 or_empty(CallerName), or_empty(msg), or_empty(expr), or_empty(file), line);
  size_t len = n < 0 ? 0 : std::strlen(text);
  if (n < 0) text[0] = '\0';
  syslog(LOG_ALERT, "%s", text);
  text[len++] = '\n';
  write_stderr(std::string_view(text, len));
  if (dump_core == 0) _exit(PanicNoCoreExitCode);
  abort();
}

int IsOrbulanAppliance(void) {
  return is_orbulan_type(getenv("APPLIANCE_TYPE")) ? 1 : 0;
}

int IsVdfsCheckedBuild(void) {
  const bool first = called.fetch_add(1, std::memory_order_relaxed) == 0;
  int result = 0;
  int level = kLogNotice;
  const char *reason = nullptr;
  struct stat st;
  if (const char *env = getenv("VDFS_CHECKED_BUILD"); env != nullptr) {
    if (env[0] == '0') {
      reason = "Checked Build disabled - 'VDFS_CHECKED_BUILD' env var.\n";
    } else {
      result = 1;
      level = kLogInfo;
      reason = "Checked Build enabled - 'VDFS_CHECKED_BUILD' env var.\n";
    }
  } else if (IsOrbulanAppliance() != 0) {
    reason = "Checked Build disabled - Merrow.\n";
  } else if (stat(kCheckedTouchFile, &st) == 0 && S_ISREG(st.st_mode)) {
    result = 1;
    level = kLogInfo;
    reason = "Checked Build enabled - '/usr/burn/test/checked_build/ENABLED' touch file found.\n";
  } else {
    reason = "Checked Build disabled - default.\n";
  }
  WriteLog_t log = WriteLog;
  if (first && log != nullptr) log(level, reason);
  return result;
}

void PanicCheckedBuild(const char *file, int line, const char *format, ...) {
  char message[kCheckedMessageSize];
  message[0] = '\0';
  va_list ap;
  va_start(ap, format);
  if (format != nullptr) (void)std::vsnprintf(message, sizeof message, format, ap);
  va_end(ap);
  message[sizeof message - 1] = '\0';

  if (IsVdfsCheckedBuild() == 1) DoPanic("", message, 1, file, line);

  char text[kCheckedMessageSize];
  KxSnprintf(text, sizeof text, "ERROR (%s:%d) %s\n", or_empty(file), line, message);
  text[sizeof text - 1] = '\0';
  PanicCheckedWriteLog(text);
}

void PanicCheckedWriteLog(const char *text) {
  const std::string_view view(or_empty(text));
  const bool has_newline = !view.empty() && view.back() == '\n';
  WriteLog_t log = WriteLog;
  if (log == nullptr) {
    write_stderr(view);
    if (!has_newline) write_stderr("\n");
    return;
  }
  if (has_newline) {
    log(kLogError, text);
    return;
  }
  char *copy = static_cast<char *>(std::malloc(view.size() + 2));
  if (copy == nullptr) {  // better the line without its newline than no line
    log(kLogError, view.data());
    return;
  }
  view.copy(copy, view.size());
  copy[view.size()] = '\n';
  copy[view.size() + 1] = '\0';
  log(kLogError, copy);
  std::free(copy);
}

}  // extern "C"
