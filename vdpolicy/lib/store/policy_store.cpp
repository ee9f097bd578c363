// The policy cache: lookups by key or name, reference counts, and dropping
// cached policies that are stale.
#include "vdpolicy/lib/store/policy_store.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "libutil/dopanic.h"
#include "libutil/hash_table.h"
#include "libutil/kxlog.h"
#include "libutil/mutex.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/config/policy_trace.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/store/policy_dir_cache.h"
#include "vdpolicy/lib/store/policy_file.h"

static const char kx_source_path[] = "vdpolicy/lib/policy";

// A reference count checked under the name the panic message gives it.
#define POLICY_REF_ASSERT(ok, text) \
  ((ok) ? (void)0 : DoPanic("ASSERT failed ", text, 1, kx_source_path, __LINE__))

extern "C" {
pthread_mutex_t policy_lock = PTHREAD_MUTEX_INITIALIZER;
Policy_t *policy_hash[POLICY_HASH_SIZE];
// The compiled-in parents, merged directly: no state, no reference count.
constinit Policy_t Global_Policy = {&Global_Policy_Config, nullptr, 0};
constinit Policy_t Config_Policy = {&Config_Policy_Config, nullptr, 0};
constinit Policy_t Target_Policy = {&Target_Policy_Config, nullptr, 0};
void (*check_cache_callout)(dm_fsid_t) = _check_policy_cache;
void (*init_policy_callout)(Policy_t *) = nullptr;
void (*deactivate_policy_callout)(Policy_t *) = nullptr;
void (*free_policy_state_callout)(PolicyState_t *) = nullptr;
}

namespace {

constexpr size_t kMsgSize = 4096;
constexpr const char *kNoMemory = "Memory allocation failure during parse";

// Reserved keys stand for the named policies "global", "config", "target".
constexpr const char *kReservedNames[] = {nullptr, "global", "config", "target"};

unsigned bucket_of_key(uint64_t key) {
  return static_cast<uint32_t>(key) % POLICY_HASH_SIZE;
}
unsigned bucket_of_name(const char *name) {
  return vd_name_hash(name) % POLICY_HASH_SIZE;
}

// A policy looked up by key is filed by its key and one looked up by name
// (key 0) by its name, so that the next lookup of the same kind finds it,
// even when a keyed policy's text also gives it a name.
unsigned bucket_of(const PolicyConfig_t *config) {
  if (config->polcfg_key != 0 || config->polcfg_name == nullptr)
    return bucket_of_key(config->polcfg_key);
  return bucket_of_name(config->polcfg_name);
}

PolicyState_t *state_of(Policy_t *p) {
  return p->pol_state;
}

void destroy_state(PolicyState_t *state) {
  if (free_policy_state_callout != nullptr) free_policy_state_callout(state);
  pthread_mutex_destroy(&state->polst_mutex);
  pthread_mutex_destroy(&state->polst_state_mutex);
  pthread_mutex_destroy(&state->polst_name_mutex);
  std::free(state->polst_cross_mount);
  std::free(state);
}

Policy_t *find_by_key(dm_fsid_t fsid, uint64_t key) {
  for (Policy_t *p = policy_hash[bucket_of_key(key)]; p != nullptr; p = state_of(p)->polst_next)
    if (p->pol_config->polcfg_fsid == fsid && p->pol_config->polcfg_key == key) return p;
  return nullptr;
}

// Entries valid on every file system (fsid 0) match from any.
Policy_t *find_by_name(dm_fsid_t fsid, const char *name) {
  for (Policy_t *p = policy_hash[bucket_of_name(name)]; p != nullptr; p = state_of(p)->polst_next) {
    const PolicyConfig_t *c = p->pol_config;
    if (c->polcfg_fsid != 0 && c->polcfg_fsid != fsid) continue;
    if (c->polcfg_name != nullptr && std::strcmp(c->polcfg_name, name) == 0) return p;
  }
  return nullptr;
}

// The one form the store knows a policy by: a name with key 0, or a key of
// its own (VDP_FIRST_FILE_KEY or more) without a name.
struct PolicyId {
  const char *name;
  uint64_t key;
  bool asked_by_name;  // a name other than "key_N": it may close a cycle
};

// Brings a lookup's name or key into that form, once, where it comes in:
// "key_N" is key N; keys 1-3 are the reserved names; a name is a key-0
// policy whatever key came with it ("global" is asked for with key 1 as a
// parent), or the cached "global" would carry key 1 or 0 depending on which
// lookup loaded it. Nothing for a "key_" name that holds no number.
std::optional<PolicyId> normalise(const char *name, uint64_t key) {
  if (name != nullptr && std::strncmp(name, "key_", 4) != 0) return PolicyId{name, 0, true};
  if (name != nullptr) {
    long parsed = 0;
    if (std::sscanf(name, "key_%ld", &parsed) != 1) return std::nullopt;
    key = static_cast<uint64_t>(parsed);
  }
  if (key != 0 && key < VDP_FIRST_FILE_KEY) return PolicyId{kReservedNames[key], 0, false};
  return PolicyId{nullptr, key, false};
}

bool in_chain(const char **chain, int depth, const char *name) {
  if (chain == nullptr) return false;
  for (int i = 0; i < depth && i <= VDP_MAX_INHERIT_DEPTH; ++i)
    if (chain[i] != nullptr && std::strcmp(chain[i], name) == 0) return true;
  return false;
}

// The three allocations of a new cache entry, freed together on failure.
Policy_t *new_entry() {
  auto *policy = static_cast<Policy_t *>(vdpol::mem_calloc(1, sizeof(Policy_t)));
  auto *config = static_cast<PolicyConfig_t *>(vdpol::mem_calloc(1, sizeof(PolicyConfig_t)));
  auto *state = static_cast<PolicyState_t *>(vdpol::mem_calloc(1, sizeof(PolicyState_t)));
  if (policy == nullptr || config == nullptr || state == nullptr) {
    std::free(policy);
    std::free(config);
    std::free(state);
    return nullptr;
  }
  policy->pol_config = config;
  policy->pol_state = state;
  init_policy(policy);
  policy->pol_ref = config->polcfg_ref = state->polst_ref = 1;
  return policy;
}

// Step 6 of a lookup: parse the policy's file and file it in the cache.
Policy_t *load_entry(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key, int depth,
                     const char **chain, char *errbuf, size_t errlen) {
  Policy_t *entry = new_entry();
  if (entry == nullptr) {
    vdpol::write_message(errbuf, errlen, "%s", kNoMemory);
    return nullptr;
  }
  if (parse_policy_file(fsid, mount, name, key, entry->pol_config, 1, depth, chain, errbuf,
                        errlen) != 0) {
    release_policy_locked(entry);
    return nullptr;
  }
  unsigned bucket = name != nullptr ? bucket_of_name(name) : bucket_of_key(key);
  entry->pol_state->polst_next = policy_hash[bucket];
  policy_hash[bucket] = entry;
  return entry;
}

// Step 7: a stale entry gets a fresh configuration in place; callers that
// hold the old one keep it until they release it.
bool refresh_entry(Policy_t *entry, dm_fsid_t fsid, const char *mount, const char *name,
                   uint64_t key, int depth, const char **chain, char *errbuf, size_t errlen) {
  auto *fresh = static_cast<PolicyConfig_t *>(vdpol::mem_calloc(1, sizeof(PolicyConfig_t)));
  if (fresh == nullptr) {
    unhash_policy(entry);
    vdpol::write_message(errbuf, errlen, "%s", kNoMemory);
    return false;
  }
  if (deactivate_policy_callout != nullptr) deactivate_policy_callout(entry);
  release_policy_config_locked(entry->pol_config);
  init_policy_config(fresh);
  entry->pol_config = fresh;
  if (parse_policy_file(fsid, mount, name, key, fresh, 1, depth, chain, errbuf, errlen) != 0) {
    unhash_policy(entry);
    return false;
  }
  entry->pol_state->polst_stale = 0;
  return true;
}

// Step 8: the caller's own reference to a cached entry.
Policy_t *reference_to(Policy_t *entry, char *errbuf, size_t errlen) {
  auto *mine = static_cast<Policy_t *>(vdpol::mem_calloc(1, sizeof(Policy_t)));
  if (mine == nullptr) {
    vdpol::write_message(errbuf, errlen, "%s", kNoMemory);
    return nullptr;
  }
  POLICY_REF_ASSERT(entry->pol_config->polcfg_ref > 0, "policy->polcfg_ref > 0");
  POLICY_REF_ASSERT(entry->pol_state->polst_ref > 0, "policy->polst_ref > 0");
  mine->pol_config = entry->pol_config;
  mine->pol_state = entry->pol_state;
  mine->pol_ref = 1;
  ++mine->pol_config->polcfg_ref;
  ++mine->pol_state->polst_ref;
  return mine;
}

template <typename Match>
void unlink_matching(Match match) {
  for (Policy_t *&head : policy_hash) {
    for (Policy_t **link = &head; *link != nullptr;) {
      Policy_t *p = *link;
      if (!match(p)) {
        link = &state_of(p)->polst_next;
        continue;
      }
      *link = state_of(p)->polst_next;
      state_of(p)->polst_next = nullptr;
      release_policy_locked(p);
    }
  }
}

}  // namespace

namespace vdpol {

void mark_fs_stale_locked(dm_fsid_t fsid) noexcept {
  for (Policy_t *head : policy_hash)
    for (Policy_t *p = head; p != nullptr; p = state_of(p)->polst_next)
      if (p->pol_config->polcfg_fsid == fsid) p->pol_state->polst_stale = 1;
}

}  // namespace vdpol

extern "C" {

Policy_t *_lookup_policy(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key,
                         int depth, const char **chain, char *errbuf, size_t errlen) {
  if (depth > VDP_MAX_INHERIT_DEPTH) {
    vdpol::write_message(errbuf, errlen, "%s", "Policy inheritance too deep");
    return nullptr;
  }
  const std::optional<PolicyId> id = normalise(name, key);
  if (!id) return nullptr;
  if (id->asked_by_name && depth >= 1 && in_chain(chain, depth, id->name)) {
    vdpol::write_message(errbuf, errlen, "%s", "Cycle detected in policy inheritance");
    return nullptr;
  }
  name = id->name;
  key = id->key;
  Policy_t *entry = nullptr;
  if (name != nullptr)
    entry = find_by_name(fsid, name);
  else if (key != 0)
    entry = find_by_key(fsid, key);
  if (entry == nullptr) {
    entry = load_entry(fsid, mount, name, key, depth, chain, errbuf, errlen);
    if (entry == nullptr) return nullptr;
  } else if (entry->pol_state->polst_stale != 0 &&
             !refresh_entry(entry, fsid, mount, name, key, depth, chain, errbuf, errlen)) {
    return nullptr;
  }
  return reference_to(entry, errbuf, errlen);
}

Policy_t *lookup_policy(dm_fsid_t fsid, const char *mount, const char *name, uint64_t key) {
  const char *chain[VDP_MAX_INHERIT_DEPTH + 1] = {};
  char errbuf[kMsgSize];
  errbuf[0] = '\0';
  Policy_t *policy;
  {
    kx::MutexLock lock(&policy_lock);
    if (check_cache_callout != nullptr) check_cache_callout(fsid);
    policy = _lookup_policy(fsid, mount, name, key, 0, chain, errbuf, sizeof errbuf);
  }
  if (policy == nullptr && errbuf[0] != '\0') __kxfs_logfn(KXLOG_ERROR, "%s\n", errbuf);
  return policy;
}

void release_policy(Policy_t *policy) {
  kx::MutexLock lock(&policy_lock);
  release_policy_locked(policy);
}

void init_policy(Policy_t *policy) {
  PolicyState_t *state = policy->pol_state;
  *state = PolicyState_t{};
  if (kx_thread_mutex_init(&state->polst_mutex, nullptr) != 0)
    DoPanic("policy pol_mutex THREAD_MUTEX_INIT", "", 1, kx_source_path, __LINE__);
  if (kx_thread_mutex_init(&state->polst_state_mutex, nullptr) != 0)
    DoPanic("policy pol_state_mutex THREAD_MUTEX_INIT", "", 1, kx_source_path, __LINE__);
  if (kx_thread_mutex_init(&state->polst_name_mutex, nullptr) != 0)
    DoPanic("policy pol_namespace_mutex THREAD_MUTEX_INIT", "", 1, kx_source_path, __LINE__);
  init_policy_config(policy->pol_config);
  if (init_policy_callout != nullptr) init_policy_callout(policy);
}

void release_policy_config_locked(PolicyConfig_t *config) {
  if (config == nullptr) return;
  POLICY_REF_ASSERT(config->polcfg_ref > 0, "policy->polcfg_ref > 0");
  if (--config->polcfg_ref > 0) return;
  free_policy_config_contents(config);
  std::free(config);
}

void release_policy_locked(Policy_t *policy) {
  if (policy == nullptr) return;
  KX_ASSERT(policy->pol_ref > 0);
  if (--policy->pol_ref > 0) return;
  release_policy_config_locked(policy->pol_config);
  if (PolicyState_t *state = policy->pol_state; state != nullptr) {
    POLICY_REF_ASSERT(state->polst_ref > 0, "policy->polst_ref > 0");
    if (--state->polst_ref == 0) destroy_state(state);
  }
  std::free(policy);
}

void unhash_policy(Policy_t *policy) {
  if (policy == nullptr) return;
  Policy_t **link = &policy_hash[bucket_of(policy->pol_config)];
  Policy_t *pol = *link;
  while (pol != nullptr && pol != policy) {
    link = &state_of(pol)->polst_next;
    pol = *link;
  }
  if (pol == nullptr) return;  // not in its bucket: not ours to release
  // The assertion's text is the message a broken hash chain panics with.
  KX_ASSERT(policy == NULL || pol == policy);  // NOLINT(modernize-use-nullptr)
  *link = state_of(pol)->polst_next;
  state_of(pol)->polst_next = nullptr;
  release_policy_locked(pol);
}

void purge_stale_policies_locked(dm_fsid_t fsid) {
  unlink_matching([fsid](Policy_t *p) {
    return p->pol_config->polcfg_fsid == fsid && p->pol_state->polst_stale == 1;
  });
}

void stale_policy(dm_fsid_t fsid, uint64_t key, const char *name) {
  if (fsid == 0 || (key == 0 && name == nullptr)) return;
  kx::MutexLock lock(&policy_lock);
  unsigned bucket = name != nullptr ? bucket_of_name(name) : bucket_of_key(key);
  for (Policy_t *p = policy_hash[bucket]; p != nullptr; p = state_of(p)->polst_next) {
    const PolicyConfig_t *c = p->pol_config;
    if (c->polcfg_fsid != fsid) continue;
    bool key_match = key != 0 && c->polcfg_key == key;
    bool name_match =
        name != nullptr && c->polcfg_name != nullptr && std::strcmp(c->polcfg_name, name) == 0;
    if (key_match || name_match) {
      p->pol_state->polst_stale = 1;
      return;
    }
  }
}

void free_policy_caches(void) {
  kx::MutexLock lock(&policy_lock);
  unlink_matching([](Policy_t *) { return true; });
  kx::MutexLock dir_lock(&policy_dir_lock);
  free_pol_dir_cache_locked();
}

}  // extern "C"
