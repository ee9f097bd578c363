// The stored policies of a managed fixture, in the mount's policy directory
// "<mount>/.rep_private/config", and the object-storage configuration that
// its object-store policy is checked against.
//
// A policy file restored without its data is refused by the policy library,
// so `kxsim check` must notice one: the names written are kept in
// <state dir>/<fsid>/policies, one path relative to the mount per line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kxsim/core/config.h"
#include "kxsim/core/state_store.h"

namespace kxsim {

inline constexpr std::uint64_t kFirstFixtureKey = 101;
inline constexpr const char *kPolicyDir = ".rep_private/config";
inline constexpr const char *kInheritedPolicy = "shared";
inline constexpr const char *kObjsConf =
    "objs_id=cloud1,provider=AmazonS3,access_host_ports=localhost:9000\n"
    "namespaces=bucket1\n";

// One key's policy. Kinds cycle with the key's index: plain, deduplicating,
// object store, inheriting from the named policy kInheritedPolicy.
struct FixtureKey {
  std::uint64_t key;
  const char *text;
  // blk_flags of a blockless file whose data is stored elsewhere; 0 when the
  // policy keeps no copies.
  std::uint16_t stored_flag;
};
FixtureKey fixture_key(std::uint64_t index);

// Writes "global", the named parent when a key inherits, one "key_<key>"
// per key, and objs.conf into conf_dir; records the policy files. Sets
// `written` to the number of policy files. false with `error`.
bool write_fixture_policies(const StateStore &store, const Mount &m, std::uint64_t keys,
                            const std::string &conf_dir, std::uint64_t &written,
                            std::string &error);

// One message per recorded policy file that is missing or lacks its data.
// false with `error` when the record cannot be read.
bool find_unusable_policies(const StateStore &store, const Mount &m,
                            std::vector<std::string> &problems, std::string &error);

}  // namespace kxsim
