// A directory's policy view and the deduplication question.
#include "rules/dir_policy.h"

#include <cerrno>
#include <cstring>

#include "libutil/snprintf.h"
#include "rules/event_attr.h"
#include "settings.h"
#include "shown_path.h"

namespace {
constexpr std::size_t kErrMsgSize = 256;
constexpr std::size_t kAnswerSize = 80;
}  // namespace

BfstRead read_dir_bfst(int dir_fd) {
  BfstRead read;
  if (dm_get_dmattr_fd(dir_fd, DM_NO_SESSION, DM_NO_TOKEN, &kBfstAttrName, sizeof read.attr.raw,
                       read.attr.raw, &read.len) != 0)
    read.read_errno = errno != 0 ? errno : EIO;
  return read;
}

int get_dir_vdp(int dir_fd, const char *dir_path, const char *policy_path, OwnedVdp &loaded,
                bool &has_vdpd_info, bool &policy_unknown, const BfstRead *ahead,
                vdpol_hndl_s *handle_ahead) {
  has_vdpd_info = false;
  policy_unknown = false;
  const BfstRead read = ahead != nullptr ? *ahead : read_dir_bfst(dir_fd);
  const event_attr_t &event_attr = read.attr;
  const size_t attr_len = read.len;
  if (read.read_errno != 0) {
    if (read.read_errno == ENODATA || read.read_errno == ENOENT) return 0;  // no policy of its own
    ErrPrintf("Failed to get xattr for directory %s: %s.\n", ShownPath(dir_path).c_str(),
              std::strerror(read.read_errno));
    // The directory may carry a policy that keeps copies of its files
    // elsewhere: without knowing it, nothing below may go.
    policy_unknown = true;
    return 0;
  }
  if (attr_len < kBlkKeyEnd) {
    ErrPrintf("Failed to get xattr for directory %s: %s.\n", ShownPath(dir_path).c_str(),
              too_short_reason(attr_len).c_str());
    policy_unknown = true;
    return 0;
  }
  has_vdpd_info = true;
  char err_msg[kErrMsgSize] = {};
  OwnedPolicyHandle opened;
  if (handle_ahead == nullptr) {
    vdpol_hndl_s *handle = nullptr;
    if (vdpol_open(policy_path, &handle, err_msg, sizeof err_msg) != 0) {
      ErrPrintf("Unable to open vdpolicy for directory %s: %s\n", ShownPath(dir_path).c_str(),
                err_msg);
      return -1;
    }
    opened.reset(handle);
  }
  Vdp_t *record = nullptr;
  int rc = vdpol_load(handle_ahead != nullptr ? handle_ahead : opened.get(), nullptr,
                      blk_key(event_attr), &record, err_msg, sizeof err_msg);
  opened.reset();
  if (rc != 0) {
    ErrPrintf("Unable to obtain vdpolicy information for directory %s: %s\n",
              ShownPath(dir_path).c_str(), err_msg);
    return -1;
  }
  loaded.reset(record);
  return 0;
}

void ask_keep_dedup_files(FILE *in) {
  if (Preserve_dedup_files || Prompt_for_dedup_files) return;
  VPrintf(1,
          "File system has deduplicated files stored in blockpool, do you wish to keep them "
          "(<y>/n)?");
  (void)std::fflush(stdout);  // the question must be on screen before we wait
  // Preset to 'y': end of input keeps the files, a bare Enter does not.
  char answer[kAnswerSize] = {'y'};
  if (std::fgets(answer, sizeof answer, in) == nullptr || answer[0] == 'y' || answer[0] == 'Y') {
    Preserve_dedup_files = 1;
  }
  Prompt_for_dedup_files = 1;
}
