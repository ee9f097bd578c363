// Stripping the policy engine's information from a file or directory.
#include "rules/policy_info.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "extapi/kxapi.h"
#include "kxdmapi/kxdmapi.h"
#include "libutil/unique_fd.h"
#include "rules/event_attr.h"
#include "run_counts.h"
#include "settings.h"
#include "shown_path.h"

namespace {

// Operation flag of the deduplication and object-store keys.
constexpr uint32_t kExtRepOpFlags = 4;

}  // namespace

void remove_vdpolicy_info_fd(int fd, const char *path, int is_a_directory) {
  ++Run_Counts.stripped;
  // Results are not checked: a representation that is absent is the usual
  // case after a restore, and nothing else can be done about the others.
  (void)KxApi_RemoveExternalRep(fd, 0, kExtRepOpFlags, "BLOB");
  (void)KxApi_RemoveExternalRep(fd, 0, kExtRepOpFlags, "OBJF");
  (void)KxApi_RemoveExternalRep(fd, 0, 0, "REPL");

  if (dm_remove_dmattr_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, 0, &kBfstAttrName) != 0) {
    int err = errno;
    VPrintf(1, "remove_vdpolicy_info: dm_remove_dmattr failed for BFST, errno=%d: %s\n", err,
            std::strerror(err));
  }
  if (is_a_directory) return;
  dm_eventset_t events_to_set = 0;
  dm_eventset_t events_to_clear = DM_EVENT_MANAGED_MASK;
  if (dm_update_eventlist_fd(fd, DM_NO_SESSION, DM_NO_TOKEN, &events_to_set, &events_to_clear,
                             DM_EVENT_MAX) != 0) {
    int err = errno;
    VPrintf(1, "remove_vdpolicy_info: Cannot dm_update_eventlist  %s, errno=%d: %s\n",
            ShownPath(path).c_str(), err, std::strerror(err));
  }
}

void remove_vdpolicy_info(int dir_fd, const char *name, const char *path) {
  kx::UniqueFd fd(openat(dir_fd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    VPrintf(1, "remove_vdpolicy_info: Cannot open %s, errno=%d\n", ShownPath(path).c_str(), errno);
    return;
  }
  remove_vdpolicy_info_fd(fd.get(), path, 0);
}
