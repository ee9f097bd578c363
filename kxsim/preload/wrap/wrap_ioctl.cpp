// ioctl and close: requests on the control device and on the simulated file
// system's files. Requests with other numbers, and descriptors outside every
// simulated mount, go to the C library untouched.
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

#include "kxsim/preload/driver/driver.h"
#include "kxsim/preload/libc_next.h"
#include "kxsim/preload/settings.h"

using namespace kxsim;

extern "C" {

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  bool control_request = request == req::kDmig || request == req::kMountChangeTime;
  bool file_request = is_file_request(request);
  const Simulator *existing = Simulator::existing();
  const bool control_fds = existing != nullptr && existing->has_control_fds();
  if (!control_request && !file_request && !control_fds) return next::ioctl(fd, request, arg);
  if (!control_fds && !simulator_configured()) return next::ioctl(fd, request, arg);
  Simulator &sim = Simulator::instance();
  int saved = errno;
  if (control_request || file_request) wait_request_latency();
  const FdObject object = file_request ? look_up_fd(fd) : FdObject{};
  // -2: not the simulator's request.
  int r = guarded([&] {
    Simulator::Scope scope("ioctl");
    if (!scope.entered()) return -2;
    if (sim.is_control_fd(fd)) return control_ioctl(sim, fd, request, arg);
    if (!file_request || !simulator_configured()) return -2;
    auto result = file_ioctl(sim, fd, request, arg, object);
    return result ? *result : -2;
  });
  if (r != -2) {
    if (r >= 0) errno = saved;
    return r;
  }
  errno = saved;
  return next::ioctl(fd, request, arg);
}

int close(int fd) {
  if (Simulator *sim = Simulator::existing(); sim != nullptr && sim->has_control_fds()) {
    Simulator::Scope scope("close");
    if (scope.entered()) sim->forget_fd(fd);
  }
  return next::close(fd);
}

}  // extern "C"
