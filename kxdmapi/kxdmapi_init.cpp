// The driver channel: the control-device descriptor, requests, session start.
#include "kxdmapi/kxdmapi_init.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "kxdmapi/kxdmapi_debug.h"
#include "kxdmapi/kxdmapi_wire.h"
#include "libutil/mutex.h"
#include "libutil/unique_fd.h"

static_assert(sizeof(Dmig) == 24, "Dmig is the driver's 24-byte frame");
static_assert(offsetof(Dmig, dmig_buf) == 16, "dmig_buf sits at offset 16");

extern "C" {
int32_t kxdmapi_dmfd = -1;
int32_t kxdmapi_dmfd_keep = 1;
pthread_mutex_t kxdmapi_dmfd_lock = PTHREAD_MUTEX_INITIALIZER;
char kxdmapi_version_string[KXDMAPI_VERSION_STRING_SIZE] = "KXFS DMAPI (XDSM) API, Release 1.0.";
// The library's own program name, kept apart from the application's.
const char *kxdmapi_Prog = nullptr;
}

namespace {

constexpr int kDriverAttempts = 3;
constexpr size_t kInitPayloadLen = 256;

int32_t already_called = 0;  // guarded by kxdmapi_dmfd_lock

int load_dmfd() {
  return __atomic_load_n(&kxdmapi_dmfd, __ATOMIC_ACQUIRE);
}
void store_dmfd(int fd) {
  __atomic_store_n(&kxdmapi_dmfd, fd, __ATOMIC_RELEASE);
}
bool keep_dmfd() {
  return __atomic_load_n(&kxdmapi_dmfd_keep, __ATOMIC_RELAXED) != 0;
}

int open_control_device() {
  return open(KXDMAPI_CONTROL_DEVICE, O_RDWR | O_CLOEXEC);
}

// A descriptor for one request. `owned` is set when the request must close
// it itself (open-per-request mode).
int take_descriptor(bool *owned) {
  *owned = false;
  int fd = load_dmfd();
  if (fd >= 0) return fd;
  kx::MutexLock lock(&kxdmapi_dmfd_lock);
  fd = load_dmfd();
  if (fd >= 0) return fd;
  fd = open_control_device();
  if (fd < 0) {
    KXDMAPI_TRACE("kxdmapi_call_driver: Cannot access DMIG driver - %s\n", strerror(errno));
    errno = ENOSYS;
    return -1;
  }
  if (keep_dmfd())
    store_dmfd(fd);
  else
    *owned = true;
  return fd;
}

// The kept descriptor went stale: drop it so the next attempt opens a new
// one. Only the thread that clears it closes it, so a number that another
// thread has meanwhile reopened is never closed by mistake.
void drop_stale(int fd) {
  kx::MutexLock lock(&kxdmapi_dmfd_lock);
  if (load_dmfd() != fd) return;
  store_dmfd(-1);
  kx::UniqueFd stale(fd);
}

int send_frame(int fd, int func, void *pdata, size_t len) {
  Dmig frame{};
  frame.dmig_func = func;
  frame.dmig_version = DMIG_VERSION;
  frame.dmig_error = 0;
  frame.dmig_bufsize = static_cast<uint32_t>(len);
  frame.dmig_buf = static_cast<dm_useraddr_t>(reinterpret_cast<uintptr_t>(pdata));
  return ioctl(fd, KXDMAPI_DMIG_IOCTL, &frame);
}

}  // namespace

extern "C" int kxdmapi_call_driver(int func, void *pdata, size_t len) {
  if (len > UINT32_MAX) {
    errno = EINVAL;
    return -1;
  }
  int result = -1;
  for (int attempt = 0; attempt < kDriverAttempts; ++attempt) {
    bool owned = false;
    int fd = take_descriptor(&owned);
    if (fd < 0) return -1;
    // In open-per-request mode the descriptor is this attempt's alone.
    kx::UniqueFd per_request(owned ? fd : -1);
    result = send_frame(fd, func, pdata, len);
    int saved_errno = errno;
    per_request.reset();
    if (result != -1 || saved_errno != EBADF) {
      errno = saved_errno;
      return kxdmapi::request_result(result);
    }
    if (!owned) drop_stale(fd);
    errno = saved_errno;
  }
  return result;
}

// Opens the channel once per process. A failed first call is not retried:
// later calls report success without a channel, as applications expect.
static int open_channel_once(bool *first) {
  kx::MutexLock lock(&kxdmapi_dmfd_lock);
  *first = already_called == 0;
  if (!*first) return 0;
  already_called = 1;
  if (load_dmfd() >= 0) return 0;
  int fd = open_control_device();
  if (fd < 0) {
    KXDMAPI_TRACE("kxdmapi: Cannot access DMIG driver - %s\n", strerror(errno));
    if (errno != EPERM) errno = ENOSYS;
    return -1;
  }
  store_dmfd(fd);
  return 0;
}

static void close_channel() {
  kx::MutexLock lock(&kxdmapi_dmfd_lock);
  kx::UniqueFd channel(load_dmfd());
  store_dmfd(-1);
}

extern "C" int dm_init_service(char **versionstrpp) {
  __atomic_store_n(&kxdmapi_Prog, static_cast<const char *>("libkxdmapi"), __ATOMIC_RELAXED);
  KXDMAPI_TRACE("dm_init_service\n");
  bool first = false;
  if (open_channel_once(&first) != 0) return -1;
  if (first) {
    unsigned char payload[kInitPayloadLen] = {};
    if (kxdmapi_call_driver(DMIG_INIT_SERVICE, payload, sizeof payload) != 0) {
      int saved_errno = errno;
      close_channel();
      KXDMAPI_TRACE("dm_init_service: - %s\n", strerror(saved_errno));
      errno = saved_errno;
      return -1;
    }
  }
  if (versionstrpp != nullptr) *versionstrpp = kxdmapi_version_string;
  KXDMAPI_TRACE("dm_init_service success\n");
  return 0;
}

extern "C" void dm_release_dmfd(void) {
  kx::MutexLock lock(&kxdmapi_dmfd_lock);
  __atomic_store_n(&kxdmapi_dmfd_keep, 0, __ATOMIC_RELAXED);
  kx::UniqueFd kept(load_dmfd());
  store_dmfd(-1);
}

static void binary_to_hex(const void *bytes, size_t length, char *out, const char *digits) {
  const auto *in = static_cast<const unsigned char *>(bytes);
  for (size_t i = 0; i < length; ++i) {
    out[2 * i] = digits[in[i] >> 4];
    out[2 * i + 1] = digits[in[i] & 0x0Fu];
  }
  out[2 * length] = '\0';
}

extern "C" void dm_binary_to_hex(const void *bytes, size_t length, char *out) {
  binary_to_hex(bytes, length, out, "0123456789ABCDEF");
}

extern "C" void dm_binary_to_hex_lc(const void *bytes, size_t length, char *out) {
  binary_to_hex(bytes, length, out, "0123456789abcdef");
}
