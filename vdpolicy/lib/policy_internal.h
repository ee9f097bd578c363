// Helpers shared by the policy library's sources; not installed.
//
// Every string a PolicyConfig_t owns comes from malloc (so C callers and
// free_policy_config_contents release it with free); these helpers keep that
// invariant in one place.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <initializer_list>
#include <string_view>

#include "libutil/kxlog.h"
#include "vdpolicy/lib/policy.h"

#define VDPOL_TRACE(facility, bit, ...)                                      \
  do {                                                                       \
    if ((facilities[facility] & (bit)) != 0) __kxfs_debugfn(0, __VA_ARGS__); \
  } while (0)
#define VDPOL_STORE_TRACE(...) VDPOL_TRACE(::vdpol::kFacStore, ::vdpol::kTraceStore, __VA_ARGS__)

namespace vdpol {

// Debug traces: the store and inheritance trace on facility 9, the API on
// the policy library's own facility byte.
constexpr int kFacStore = 9;
constexpr unsigned char kTraceStore = 0x10;
constexpr unsigned char kTraceRecord = 0x1;
constexpr unsigned char kTraceApi = 0x2;

// Fault injection for the tests of the out-of-memory paths: while it is
// non-negative, that many more allocations of the policy library succeed
// and the following ones fail. -1 (the default) turns it off.
extern std::atomic<int> alloc_failure_countdown;

// malloc, calloc and realloc as the library uses them (null on failure).
void *mem_alloc(std::size_t size) noexcept;
void *mem_calloc(std::size_t count, std::size_t size) noexcept;
void *mem_realloc(void *p, std::size_t size) noexcept;

// A malloc'd, NUL-terminated copy of text, or null when out of memory.
char *dup_text(std::string_view text) noexcept;

// A malloc'd concatenation of parts, or null when out of memory.
char *dup_joined(std::initializer_list<std::string_view> parts) noexcept;

// Replaces *field by a copy of text, freeing the old string. Returns false
// (field unchanged) when out of memory.
bool replace_text(char **field, std::string_view text) noexcept;

// Frees every steering namespace and empties the steering table.
void free_steer_entries(PolicyConfig_t *config) noexcept;

// Frees a null-terminated array of malloc'd strings.
void free_string_array(char **array) noexcept;

// Writes name into chain[depth] before a parent is looked up one level
// deeper; a null name keeps the entry (the lookup name). False (with
// "Policy inheritance too deep" in msg) when depth is outside the chain; a
// null chain records nothing.
bool record_in_chain(const char **chain, int depth, const char *name, char *msg,
                     std::size_t msg_size) noexcept;

// Sets polst_stale on every cached policy of fsid (policy_lock held).
void mark_fs_stale_locked(dm_fsid_t fsid) noexcept;

// One failure message for a caller-supplied buffer (which may be absent)
// and for the failure's log line, which needs the text all the same.
struct CallerMessage {
  char text[1024] = "";
  char *buf;
  std::size_t len;

  CallerMessage(char *caller_buf, std::size_t caller_len) : buf(caller_buf), len(caller_len) {}
  // Formats the message, copies it to the caller and returns rc.
  int fail(int rc, const char *format, ...) __attribute__((format(printf, 3, 4)));
  // Copies text (set by someone else) to the caller.
  void publish() const;
};

// Frees one target and what it owns; null is ignored.
void free_target(pol_target_t *target) noexcept;

// Owning pointer for malloc'd memory inside the library.
struct FreeDeleter {
  void operator()(void *p) const noexcept { std::free(p); }
};

}  // namespace vdpol
