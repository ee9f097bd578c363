// RAS event reporting and the per-client event throttle.
#include "libutil/kxras.h"

#include <pthread.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "libutil/kxras_clock.h"
#include "libutil/mutex.h"
#include "libutil/priv_check.h"
#include "libutil/snprintf.h"

namespace {

struct ras_client {
  unsigned char id[KX_RAS_CLIENT_ID_SIZE];
  uint32_t time;  // seconds of the last event reported for this client
  ras_client *prev;
  ras_client *next;
};

struct ras_client_list {
  ras_client *head;
  ras_client *tail;
};

// Records are never freed: a program sees a bounded set of clients, and a
// record must outlive every later check of that client.
ras_client_list LastRasClientEventTime[KX_RAS_CLIENT_CLASSES] = {};
pthread_mutex_t ras_clnt_lock = PTHREAD_MUTEX_INITIALIZER;

const char *program_part(const char *caller) {
  if (caller == nullptr) return "";
  const char *slash = std::strrchr(caller, '/');
  return slash != nullptr ? slash + 1 : caller;
}

ras_client *find_or_add(ras_client_list &list, const void *client) {
  for (ras_client *c = list.head; c != nullptr; c = c->next) {
    if (std::memcmp(c->id, client, KX_RAS_CLIENT_ID_SIZE) == 0) return c;
  }
  auto *c = static_cast<ras_client *>(std::calloc(1, sizeof(ras_client)));
  if (c == nullptr) return nullptr;
  std::memcpy(c->id, client, KX_RAS_CLIENT_ID_SIZE);
  c->prev = list.tail;
  if (list.tail != nullptr)
    list.tail->next = c;
  else
    list.head = c;
  list.tail = c;
  return c;
}

uint32_t system_seconds() {
  return static_cast<uint32_t>(std::time(nullptr));
}

}  // namespace

namespace kx::ras {
ClockFn clock_seconds = system_seconds;
}  // namespace kx::ras

extern "C" {

RasFn_t RasFn = nullptr;
char FsName[KX_FSNAME_SIZE] = "none";

int RasEvent(const char *event_name, const char *format, ...) {
  const RasFn_t hook = RasFn;
  va_list ap;
  va_start(ap, format);
  if (hook == nullptr) {
    // No RAS channel: the bare message is the report.
    flockfile(stderr);
    if (format != nullptr) (void)std::vfprintf(stderr, format, ap);
    (void)std::fputc('\n', stderr);
    funlockfile(stderr);
    va_end(ap);
    return 0;
  }
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  char message[KX_RAS_TEXT_SIZE];
  message[0] = '\0';
  if (format != nullptr) KxVsnprintf(message, sizeof message, format, ap);
  va_end(ap);

  char text[KX_RAS_TEXT_SIZE];
  const char *prog = program_part(CallerName);
  const int pid = static_cast<int>(getpid());
  // FsName is a program-filled array: never read past its end.
  const int fs_len = static_cast<int>(strnlen(FsName, sizeof FsName));
  if (std::string_view(FsName, static_cast<size_t>(fs_len)) == "none") {
    KxSnprintf(text, sizeof text, "%s[PID=%d]: %s", prog, pid, message);
  } else {
    KxSnprintf(text, sizeof text, "%s[PID=%d]: fs '%.*s': %s", prog, pid, fs_len, FsName, message);
  }
  return hook(event_name, text, static_cast<uint32_t>(now.tv_sec),
              static_cast<uint32_t>(now.tv_usec));
}

int NeedPerClntRas(int cls, const void *client) {
  if (cls < 0 || cls >= KX_RAS_CLIENT_CLASSES || client == nullptr) return 1;
  const uint32_t now = kx::ras::clock_seconds();
  kx::MutexLock lock(&ras_clnt_lock);
  ras_client *c = find_or_add(LastRasClientEventTime[cls], client);
  if (c == nullptr) return 1;  // better a repeated event than a lost one
  if (static_cast<uint64_t>(c->time) + KX_RAS_CLIENT_INTERVAL < now) {
    c->time = now;
    return 1;
  }
  return 0;
}

}  // extern "C"
