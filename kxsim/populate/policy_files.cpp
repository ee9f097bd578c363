#include "kxsim/populate/policy_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <set>

#include "kxsim/core/sysio.h"

namespace kxsim {

namespace {
constexpr FixtureKey kKinds[] = {
    {0, "trunc=on\n", 0},
    {0, "dedup=on\n", 0x0001},
    {0, "objs=on,objs_id=cloud1,objs_namespace=bucket1\n", 0x0400},
    {0, "inherit=shared\n", 0},
};
constexpr std::uint64_t kKindCount = sizeof kKinds / sizeof kKinds[0];
constexpr std::uint64_t kInheritingKind = 3;

std::string list_path(const StateStore &store, const Mount &m) {
  return store.fs_dir(m.fsid) + "/policies";
}

std::set<std::string> split_lines(const std::string &text) {
  std::set<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t nl = text.find('\n', start);
    if (nl == std::string::npos) nl = text.size();
    if (nl > start) lines.insert(text.substr(start, nl - start));
    start = nl + 1;
  }
  return lines;
}

bool write_text(const std::string &dir, const std::string &name, const std::string &text,
                std::string &error) {
  if (sys::make_dirs(dir) && sys::write_file_atomic(dir + "/" + name, text)) return true;
  error = dir + "/" + name + ": " + std::strerror(errno);
  return false;
}

// Adds to what earlier runs recorded: populating a second directory of the
// same mount rewrites the same policies.
bool record_policies(const StateStore &store, const Mount &m, const std::set<std::string> &rels,
                     std::string &error) {
  std::string old;
  if (!sys::read_file(list_path(store, m), old)) old.clear();
  std::set<std::string> all = split_lines(old);
  all.insert(rels.begin(), rels.end());
  std::string text;
  for (const auto &rel : all) text += rel + "\n";
  return write_text(store.fs_dir(m.fsid), "policies", text, error);
}
}  // namespace

FixtureKey fixture_key(std::uint64_t index) {
  FixtureKey k = kKinds[index % kKindCount];
  k.key = kFirstFixtureKey + index;
  return k;
}

bool write_fixture_policies(const StateStore &store, const Mount &m, std::uint64_t keys,
                            const std::string &conf_dir, std::uint64_t &written,
                            std::string &error) {
  const std::string dir = m.dir + "/" + kPolicyDir;
  std::set<std::string> rels;
  auto write_policy = [&](const std::string &name, const std::string &text) {
    rels.insert(std::string(kPolicyDir) + "/" + name);
    return write_text(dir, name, text, error);
  };
  if (!write_policy("global", "trunc_age=30d\n")) return false;
  if (keys > kInheritingKind && !write_policy(kInheritedPolicy, "dedup_pri=5\n")) return false;
  for (std::uint64_t i = 0; i < keys; ++i) {
    FixtureKey k = fixture_key(i);
    if (!write_policy("key_" + std::to_string(k.key), k.text)) return false;
  }
  written = rels.size();
  return write_text(conf_dir, "objs.conf", kObjsConf, error) &&
         record_policies(store, m, rels, error);
}

bool find_unusable_policies(const StateStore &store, const Mount &m,
                            std::vector<std::string> &problems, std::string &error) {
  std::string text;
  if (!sys::read_file(list_path(store, m), text)) {
    if (errno == ENOENT) return true;
    error = list_path(store, m) + ": " + std::strerror(errno);
    return false;
  }
  for (const auto &rel : split_lines(text)) {
    std::string path = m.dir + "/" + rel;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
      problems.push_back(path + ": the policy file is missing");
    } else if (st.st_blocks * 512 < st.st_size) {
      problems.push_back(path + ": the policy file has " + std::to_string(st.st_blocks) +
                         " blocks for " + std::to_string(st.st_size) +
                         " bytes; the policy library refuses it as truncated");
    }
  }
  return true;
}

}  // namespace kxsim
