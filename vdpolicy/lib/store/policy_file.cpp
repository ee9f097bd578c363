// parse_policy_file: one stored policy, from its file in the policy
// directory to a complete, validated configuration.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <string_view>

#include "libutil/kxlog.h"
#include "libutil/snprintf.h"
#include "libutil/unique_fd.h"
#include "vdpolicy/lib/check/policy_validate.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/store/policy_dir_cache.h"
#include "vdpolicy/lib/store/policy_file.h"
#include "vdpolicy/lib/store/policy_inherit.h"
#include "vdpolicy/lib/store/policy_store.h"

namespace {

using OwnedText = std::unique_ptr<char, vdpol::FreeDeleter>;

// No policy text comes near this; a larger file is not read into memory.
constexpr off_t kMaxPolicyFileSize = 16 << 20;
constexpr std::size_t kScratchSize = 4096;

struct FileLoad {
  dm_fsid_t fsid;
  const char *mount;
  const char *name;
  uint64_t key;
  PolicyConfig_t *policy;
  int do_inherit;
  int recurse;
  const char **inheritance;
  char *err;
  std::size_t err_size;

  void fail(const char *format, ...) const __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, format);
    vdpol::vwrite_message(err, err_size, format, ap);
    va_end(ap);
  }
};

enum class Text { parsed, no_file, failed };

// "<policy directory>/<file name>", or null when the file system has no
// policy directory (or memory ran out).
OwnedText policy_file_path(const FileLoad &load) {
  char *dir = nullptr;
  char *file = nullptr;
  if (construct_policy_path(load.fsid, load.mount, load.key, load.name, load.policy, &dir, &file) !=
      0)
    return nullptr;
  OwnedText path(vdpol::dup_joined({dir, "/", file}));
  std::free(dir);
  std::free(file);
  return path;
}

// Reads the whole file in one read and parses it (steps 1 to 3).
Text read_and_parse(const FileLoad &load) {
  OwnedText path = policy_file_path(load);
  if (!path) return Text::no_file;
  struct stat st {};
  if (stat(path.get(), &st) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) {
      load.fail("Failed to read policy file");
      return Text::failed;
    }
    if (load.name == nullptr && load.key >= VDP_FIRST_FILE_KEY) {
      load.fail("Policy file for key %ld does not exist.\n", static_cast<long>(load.key));
      return Text::failed;
    }
    return Text::no_file;
  }
  // Anything but a regular file (a FIFO would block the reader for good, a
  // device such as /dev/zero would read as an empty policy) is no policy.
  if (!S_ISREG(st.st_mode)) {
    load.fail("Policy file %s is not a regular file.\n", path.get());
    return Text::failed;
  }
  // A metadata-only restore brings a policy file back with its size but
  // without its data: such a file reads as zeros and must not be trusted.
  if (st.st_blocks * 512 < st.st_size) {
    if (load.name != nullptr)
      load.fail("Policy file for policy %s  is truncated.\n", load.name);
    else
      load.fail("Policy file for key %ld is truncated.\n", static_cast<long>(load.key));
    return Text::failed;
  }
  if (st.st_size > kMaxPolicyFileSize) {
    load.fail("Failed to read policy file");
    return Text::failed;
  }
  const auto size = static_cast<std::size_t>(st.st_size);
  OwnedText text(static_cast<char *>(vdpol::mem_alloc(size + 1)));
  if (!text) {
    __kxfs_logfn(KXLOG_ERROR, "parse_policy_file: failed to alloc memory.\n");
    load.fail("memory allocation failure");
    return Text::failed;
  }
  // O_NONBLOCK: the file may have been replaced by a FIFO since the stat.
  kx::UniqueFd fd(open(path.get(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat opened {};
  if (fd &&
      (fstat(fd.get(), &opened) != 0 || opened.st_dev != st.st_dev || opened.st_ino != st.st_ino)) {
    load.fail("Policy file %s changed while it was read.\n", path.get());
    return Text::failed;
  }
  ssize_t got = fd ? read(fd.get(), text.get(), size) : -1;
  if (got < 0 || static_cast<std::size_t>(got) != size) {
    load.fail("Failed to read policy file");
    return Text::failed;
  }
  // A policy is text: a NUL would end it early and leave a weaker policy
  // (a file of zeros reads as no options at all).
  if (const void *nul = std::memchr(text.get(), '\0', size); nul != nullptr) {
    load.fail("Policy file %s holds a NUL byte at offset %zu.\n", path.get(),
              static_cast<std::size_t>(static_cast<const char *>(nul) - text.get()));
    return Text::failed;
  }
  text.get()[size] = '\0';
  load.policy->polcfg_mtime = st.st_mtime;
  if (parse_policy_string(load.fsid, load.policy, text.get(), size, load.do_inherit, load.recurse,
                          load.inheritance, load.err, load.err_size) != 0)
    return Text::failed;
  return Text::parsed;
}

// Step 6, on the flags in force before any of its changes.
void derive_values(PolicyConfig_t *p) {
  const uint32_t flags = p->polcfg_flags;
  if ((flags & VDP_FLAG_REP_OUTPUT) != 0 && p->polcfg_rep_inline_size != 0) {
    p->polcfg_trunc_size = std::max<uint64_t>(p->polcfg_trunc_size, p->polcfg_rep_inline_size);
    p->polcfg_origin[VDP_SLOT_TRUNC_MIN_SIZE] = VDP_ORIGIN_LOCAL;
  }
  if ((flags & (VDP_FLAG_DEDUP | VDP_FLAG_OBJS)) != 0 && p->polcfg_dedup_min_size != 0) {
    p->polcfg_trunc_size = std::max(p->polcfg_trunc_size, p->polcfg_dedup_min_size);
    p->polcfg_origin[VDP_SLOT_TRUNC_MIN_SIZE] = VDP_ORIGIN_LOCAL;
    p->polcfg_origin[VDP_SLOT_REP_INLINE_SIZE] = VDP_ORIGIN_LOCAL;
  }
  if ((flags & VDP_FLAG_DEDUP) != 0 && p->polcfg_origin[VDP_SLOT_REP_DEDUP] == VDP_ORIGIN_DEFAULT) {
    p->polcfg_rep_flags |= VDP_REP_DEDUP;
    p->polcfg_origin[VDP_SLOT_REP_DEDUP] = VDP_ORIGIN_LOCAL;
  }
}

bool compile_window(const FileLoad &load, const char *text, sched_entry_t **window,
                    const char *message) {
  if (text == nullptr) return true;
  free_entry(*window);
  *window = load_entry(text);
  if (*window != nullptr) return true;
  load.fail("%s", message);
  return false;
}

}  // namespace

extern "C" int parse_policy_file(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                                 PolicyConfig_t *policy, int do_inherit, int recurse,
                                 const char **inheritance, char *ErrMsg, size_t ErrMsgSz) {
  VDPOL_STORE_TRACE("parse_policy_file(%s, %ld,%d)\n", name != nullptr ? name : "(null)",
                    static_cast<long>(key), recurse);
  if (policy == nullptr) return -1;
  const FileLoad load{fsid,       mount,   name,        key,    policy,
                      do_inherit, recurse, inheritance, ErrMsg, ErrMsgSz};
  policy->polcfg_key = key;
  policy->polcfg_fsid = fsid;
  if (inheritance != nullptr && recurse >= 0 && recurse <= VDP_MAX_INHERIT_DEPTH)
    inheritance[recurse] = name;
  const Text text = read_and_parse(load);
  if (text == Text::failed) return -1;
  if (do_inherit != 0 &&
      !vdpol::inherit_implicit_parents(fsid, mount, name, key, policy, text == Text::parsed,
                                       recurse, inheritance, ErrMsg, ErrMsgSz))
    return -1;
  derive_values(policy);
  if (!compile_window(load, policy->polcfg_ingest_sched_str, &policy->polcfg_ingest_sched,
                      "Bad ingest blackout window") ||
      !compile_window(load, policy->polcfg_rep_sched_str, &policy->polcfg_rep_sched,
                      "Bad replication blackout window"))
    return -1;
  return validate_policy(policy, fsid, ErrMsg, ErrMsgSz) != 0 ? 0 : -1;
}
