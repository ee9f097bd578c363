// Memory of the policy records, shared by the policy library's sources.
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

#include "vdpolicy/lib/config/policy_config.h"

namespace vdpol {

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

// Frees one target and what it owns; null is ignored.
void free_target(pol_target_t *target) noexcept;

// Owning pointer for malloc'd memory inside the library.
struct FreeDeleter {
  void operator()(void *p) const noexcept { std::free(p); }
};

}  // namespace vdpol
