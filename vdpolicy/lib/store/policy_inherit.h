/* Inheritance, in one place: a policy's explicit parent (its `inherit`
 * option), its implicit parents (the file system's `global`, the compiled-in
 * policies), and the merge that fills what a policy left unset. Parents come
 * from the store one level deeper, so that a cycle or a chain too deep is
 * caught there. Called with policy_lock held. */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "vdpolicy/lib/config/policy.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Fills every slot of dst whose origin is still VDP_ORIGIN_DEFAULT from src
 * (a parent); a slot src set becomes VDP_ORIGIN_INHERITED. dst's mtime
 * becomes the later of the two. Out of memory ends the merge early (logged;
 * what was merged stays). */
void merge_policy(PolicyConfig_t *dst, const PolicyConfig_t *src);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
namespace vdpol {

// Writes name into chain[depth] before a parent is looked up one level
// deeper; a null name keeps the entry (the lookup name). False (with
// "Policy inheritance too deep" in msg) when depth is outside the chain; a
// null chain records nothing.
bool record_in_chain(const char **chain, int depth, const char *name, char *msg,
                     size_t msg_size) noexcept;

// What a stored policy inherits beyond its own `inherit` option: a named
// policy the compiled-in policy of its name, or the file system's `global`;
// a keyed policy `config` (key 2) or `global`. had_file tells whether the
// policy's file was there: a name other than the reserved ones exists only
// as a file. Returns false when the policy cannot be loaded (a message in
// err, except for a missing named policy).
bool inherit_implicit_parents(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                              PolicyConfig_t *policy, bool had_file, int recurse,
                              const char **inheritance, char *err, size_t err_size);

}  // namespace vdpol
#endif
