#include "kxsim/populate/populate_managed.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "kxsim/core/bytes.h"
#include "kxsim/core/sysio.h"
#include "kxsim/populate/policy_files.h"

namespace kxsim::cli {

namespace {
constexpr const char *kSubdirs[] = {"", "/sub1", "/sub1/sub2"};
constexpr std::uint64_t kPolicyFileEvents = 0x70000000;  // bits 28-30
constexpr std::uint64_t kRelationPointEvents = 0x1120;   // create, remove, link
constexpr std::size_t kBfstSize = 32;

// Only blk_key (bytes 0-7) and blk_flags (bytes 12-13) mean anything to
// the tools that read it.
Bytes bfst(std::uint64_t key, std::uint16_t flags) {
  Bytes b(kBfstSize, 0);
  store_be<std::uint64_t>(b.data(), 0, key);
  store_be<std::uint16_t>(b.data(), 12, flags);
  return b;
}

ObjectState policy_info(std::uint64_t key, std::uint16_t flags) {
  ObjectState st;
  st.events = kPolicyFileEvents;
  st.attrs["BFST"] = bfst(key, flags);
  for (std::string_view name : {"BLOB", "OBJF", "REPL"}) {
    Bytes value(name.begin(), name.end());
    for (auto &c : value) c = static_cast<unsigned char>(c | 0x20);  // "blob", "objf", "repl"
    st.reps[std::string(name)] = ExtRep{0, 0, 0, value};
  }
  return st;
}

// One directory's file classes ('f' data, 'r' restored, 's' restored but
// stored elsewhere) in a seeded order; the counts are exact per directory.
std::vector<char> file_classes(TreeBuilder &b, const ManagedPlan &plan, bool keeps_copies) {
  std::uint64_t blockless = plan.files_per_dir * plan.blockless / 100;
  std::uint64_t stored = keeps_copies ? blockless * plan.stored / 100 : 0;
  std::vector<char> classes(plan.files_per_dir, 'f');
  std::fill_n(classes.begin(), blockless, 'r');
  std::fill_n(classes.begin(), stored, 's');
  std::shuffle(classes.begin(), classes.end(), b.random());
  return classes;
}

// `key` is null where no policy governs the directory.
bool fill_dir(TreeBuilder &b, const ManagedPlan &plan, const std::string &rel,
              const FixtureKey *key, std::string &error) {
  sys::Fd dirfd(sys::open_at(AT_FDCWD, b.path(rel).c_str(), O_RDONLY | O_DIRECTORY));
  if (!dirfd.valid()) {
    error = b.path(rel) + ": " + std::strerror(errno);
    return false;
  }
  for (char c : file_classes(b, plan, key && key->stored_flag)) {
    ObjectState st;
    if (key) st = policy_info(key->key, c == 's' ? key->stored_flag : 0);
    std::string name = file_name(c, b.counts().files);
    if (!b.make_file(dirfd.get(), rel, name, c != 'f', st, error)) return false;
    if (c == 's') ++b.counts().stored;
  }
  return true;
}

// A top directory with the state that makes it what it is, and its two
// subdirectories, which have none: they inherit.
bool make_branch(TreeBuilder &b, const ManagedPlan &plan, const std::string &top,
                 const ObjectState &top_state, const FixtureKey *key, std::string &error) {
  for (const char *sub : kSubdirs) {
    std::string rel = top + sub;
    if (!b.make_dir(rel, error)) return false;
    if (!*sub && !b.save_state(rel, top_state, error)) return false;
    if (!fill_dir(b, plan, rel, key, error)) return false;
  }
  return true;
}
}  // namespace

bool build_managed_tree(TreeBuilder &b, const ManagedPlan &plan, const std::string &conf_dir,
                        std::string &error) {
  if (!write_fixture_policies(b.store(), b.mount(), plan.keys, conf_dir, b.counts().policies,
                              error)) {
    return false;
  }
  for (std::uint64_t i = 0; i < plan.keys; ++i) {
    FixtureKey key = fixture_key(i);
    ObjectState keyed;
    keyed.attrs["BFST"] = bfst(key.key, 0);
    for (std::uint64_t j = 0; j < plan.keyed_dirs; ++j) {
      std::string top = "k" + std::to_string(key.key) + "_" + std::to_string(j);
      if (!make_branch(b, plan, top, keyed, &key, error)) return false;
      ++b.counts().keyed;
    }
  }
  ObjectState relation_point;
  relation_point.attrs["VDEA"] = Bytes{1};
  relation_point.events = kRelationPointEvents;
  for (std::uint64_t i = 0; i < plan.relation_points; ++i) {
    if (!make_branch(b, plan, "rp" + std::to_string(i), relation_point, nullptr, error)) {
      return false;
    }
    ++b.counts().relation_points;
  }
  return true;
}

}  // namespace kxsim::cli
