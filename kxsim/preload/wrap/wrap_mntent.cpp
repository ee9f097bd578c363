// The mount table: setmntent on "/proc/mounts", "/proc/self/mounts" or
// "/etc/mtab" yields the system's real entries followed by one entry of type
// "kxfs" per simulated mount. The stream is an ordinary FILE over a memory
// file, so getmntent, getmntent_r and endmntent of the C library read and
// close it unchanged.
#include <mntent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kxsim/core/hex.h"
#include "kxsim/core/sysio.h"
#include "kxsim/preload/driver/driver.h"
#include "kxsim/preload/libc_next.h"
#include "kxsim/preload/request_log.h"

using namespace kxsim;

namespace {

bool is_mount_table(const char *file) {
  return file &&
         (std::strcmp(file, "/proc/mounts") == 0 || std::strcmp(file, "/proc/self/mounts") == 0 ||
          std::strcmp(file, "/etc/mtab") == 0);
}

std::string simulated_entries(Simulator &sim) {
  std::string text;
  for (const Mount &m : sim.config().mounts) {
    text += "kxsim " + escape_field(m.dir) + " kxfs rw,fsid=" + hex_number(m.fsid) + " 0 0\n";
  }
  return text;
}

FILE *open_table(const std::string &text) {
  int fd = memfd_create("kxsim-mounts", MFD_CLOEXEC);
  if (fd < 0) return nullptr;
  std::size_t done = 0;
  while (done < text.size()) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n <= 0) {
      sys::close_fd(fd);
      return nullptr;
    }
    done += static_cast<std::size_t>(n);
  }
  lseek(fd, 0, SEEK_SET);
  FILE *f = fdopen(fd, "r");
  if (!f) sys::close_fd(fd);
  return f;
}

}  // namespace

extern "C" FILE *setmntent(const char *file, const char *mode) noexcept {
  if (!simulator_configured() || !is_mount_table(file) || !mode || std::strcmp(mode, "r") != 0) {
    return next::setmntent(file, mode);
  }
  int saved = errno;
  FILE *f = nullptr;
  try {
    std::string text;
    {
      Simulator::Scope scope("setmntent");
      if (!scope.entered()) return next::setmntent(file, mode);
      Simulator &sim = Simulator::instance();
      sim.refresh();
      if (!sys::read_file("/proc/self/mounts", text)) text.clear();
      text += simulated_entries(sim);
    }
    f = open_table(text);
  } catch (...) {
    errno = ENOMEM;
    return nullptr;
  }
  if (!f) return next::setmntent(file, mode);
  errno = saved;
  return f;
}
