// kxsim populate / check: building a test tree of restored (blockless) and
// allocated files, optionally under policies and relation points, and
// refusing a fixture that would not look restored.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "kxsim/cli/cli_common.h"
#include "kxsim/core/hex.h"
#include "kxsim/core/path_resolve.h"
#include "kxsim/core/sysio.h"
#include "kxsim/populate/policy_files.h"
#include "kxsim/populate/populate_managed.h"
#include "kxsim/populate/populate_tree.h"

namespace kxsim::cli {

namespace {
constexpr const char *kUsage =
    "usage: kxsim populate DIR --dirs N --files N [--blockless PERCENT] [--size BYTES] "
    "[--seed S]\n"
    "       kxsim populate DIR --managed [--dirs N] [--files N] [--blockless PERCENT] "
    "[--keys N] [--keyed-dirs N] [--relation-points N] [--managed-files N] [--stored PERCENT] "
    "[--size BYTES] [--seed S]";

struct Plan {
  std::uint64_t dirs = 0, files = 0, percent = 0, size = 4096, seed = 1;
  bool managed = false;
  ManagedPlan tree;
};

bool number_option(Args &args, const char *name, std::uint64_t &out, bool required,
                   std::string &error) {
  auto text = take_option(args, name);
  if (!text) {
    if (required) error = std::string("missing ") + name;
    return !required;
  }
  auto v = parse_number(*text);
  if (!v) error = std::string(name) + " needs a number, not '" + *text + "'";
  if (v) out = *v;
  return v.has_value();
}

bool managed_options(Args &args, Plan &p, std::string &error) {
  const std::pair<const char *, std::uint64_t *> options[] = {
      {"--keys", &p.tree.keys},
      {"--keyed-dirs", &p.tree.keyed_dirs},
      {"--relation-points", &p.tree.relation_points},
      {"--managed-files", &p.tree.files_per_dir},
      {"--stored", &p.tree.stored}};
  for (auto [name, field] : options) {
    if (!p.managed && std::find(args.begin(), args.end(), name) != args.end()) {
      error = std::string(name) + " needs --managed";
      return false;
    }
    if (!number_option(args, name, *field, false, error)) return false;
  }
  return true;
}

bool check_ranges(const Plan &p, std::string &error) {
  if (p.percent > 100 || p.tree.stored > 100) {
    error = "--blockless and --stored are percentages (0 to 100)";
  } else if (p.size == 0 || p.size > (64u << 20)) {
    error = "--size must be 1 to 64 MiB";
  }
  return error.empty();
}

// A managed tree is useful as it comes: everything has a default there.
bool parse_plan(Args &args, Plan &p, std::string &error) {
  auto flag = std::find(args.begin(), args.end(), "--managed");
  p.managed = flag != args.end();
  if (p.managed) {
    args.erase(flag);
    p.dirs = 16;
    p.files = 200;
    p.percent = p.tree.blockless;
  }
  if (!number_option(args, "--dirs", p.dirs, !p.managed, error) ||
      !number_option(args, "--files", p.files, !p.managed, error) ||
      !number_option(args, "--blockless", p.percent, false, error) ||
      !number_option(args, "--size", p.size, false, error) ||
      !number_option(args, "--seed", p.seed, false, error) || !managed_options(args, p, error)) {
    return false;
  }
  p.tree.blockless = p.percent;
  if (args.size() != 1) {
    error = kUsage;
    return false;
  }
  return check_ranges(p, error);
}

std::string plural(std::uint64_t n, const char *one, const char *many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

void print_summary(const std::string &top, const PopulateCounts &c, bool managed) {
  std::string line = "kxsim: populated " + top + ": " + plural(c.files, "file", "files") + " (" +
                     std::to_string(c.blockless) + " blockless";
  if (managed) line += ", " + std::to_string(c.stored) + " stored elsewhere";
  line += "), " + plural(c.dirs, "directory", "directories");
  if (managed) {
    line += ", " + std::to_string(c.keyed) + " keyed, " +
            plural(c.relation_points, "relation point", "relation points") + ", " +
            plural(c.policies, "policy", "policies");
  }
  std::printf("%s\n", line.c_str());
}

void report_blockless(const std::vector<std::string> &offenders) {
  for (const auto &p : offenders) {
    struct stat st {};
    lstat(p.c_str(), &st);
    (void)std::fprintf(
        stderr,
        "kxsim: check: %s is meant to be restored without data but has %lld allocated "
        "blocks\n",
        p.c_str(), static_cast<long long>(st.st_blocks));
  }
}

int run_check(const Registry &reg, const Mount &m, const std::string &dir) {
  StateStore store(state_dir_for(reg.path));
  std::vector<std::string> offenders, policies;
  std::string error;
  if (!find_allocated_blockless(store, m, dir, offenders, error) ||
      !find_unusable_policies(store, m, policies, error)) {
    return fail(error);
  }
  report_blockless(offenders);
  for (const auto &p : policies) (void)std::fprintf(stderr, "kxsim: check: %s\n", p.c_str());
  if (offenders.empty() && policies.empty()) return 0;
  std::string what;
  if (!offenders.empty()) {
    what = std::to_string(offenders.size()) + " file(s) meant to be blockless have blocks";
  }
  if (!policies.empty()) {
    what +=
        (what.empty() ? "" : ", ") + std::to_string(policies.size()) + " policy file(s) unusable";
  }
  return fail("check failed: " + what + "; the fixture would not look restored");
}

bool resolve_dir(const Registry &reg, const std::string &arg, std::string &dir, const Mount *&m,
                 std::string &error, bool create = false) {
  std::string abs = absolute_path(AT_FDCWD, arg.c_str());
  if (create && !abs.empty()) sys::make_dirs(abs);
  auto c = abs.empty() ? std::nullopt : canonical_path(abs, true);
  if (!c) {
    error = arg + ": " + std::strerror(errno);
    return false;
  }
  dir = *c;
  m = reg.config.find_by_path(dir);
  if (!m) error = arg + ": not inside a simulated kxfs mount of " + reg.path;
  return m != nullptr;
}
}  // namespace

int cmd_populate(Args args) {
  Plan plan;
  std::string error;
  if (!parse_plan(args, plan, error)) return fail(error);
  Registry reg;
  std::string top;
  const Mount *m = nullptr;
  if (!load_registry(reg, false, error) || !resolve_dir(reg, args[0], top, m, error, true)) {
    return fail(error);
  }
  StateStore store(state_dir_for(reg.path));
  TreeBuilder b(*m, store, top, plan.size, plan.seed);
  if (!build_plain_tree(b, plan.dirs, plan.files, plan.percent, error) ||
      (plan.managed && !build_managed_tree(b, plan.tree, conf_dir_for(reg.path), error)) ||
      !b.record(error)) {
    return fail(error);
  }
  print_summary(top, b.counts(), plan.managed);
  return run_check(reg, *m, top);
}

int cmd_check(Args args) {
  if (args.size() != 1) return fail("usage: kxsim check DIR");
  Registry reg;
  std::string dir, error;
  const Mount *m = nullptr;
  if (!load_registry(reg, false, error) || !resolve_dir(reg, args[0], dir, m, error)) {
    return fail(error);
  }
  return run_check(reg, *m, dir);
}

}  // namespace kxsim::cli
