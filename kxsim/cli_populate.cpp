// kxsim populate / check: building a test tree of restored (blockless) and
// allocated files, and refusing a fixture whose blockless files have blocks.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "kxsim/blockless_list.h"
#include "kxsim/cli_common.h"
#include "kxsim/hex.h"
#include "kxsim/path_resolve.h"
#include "kxsim/sysio.h"

namespace kxsim::cli {

namespace {
constexpr std::size_t kFanout = 8;

struct Plan {
  std::uint64_t dirs = 0, files = 0, percent = 0, size = 4096, seed = 1;
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

// Directory k's path relative to the top: the first kFanout directories sit
// at the top, directory k >= kFanout below directory k / kFanout - 1.
std::string dir_rel(std::uint64_t k) {
  char name[32];
  std::snprintf(name, sizeof name, "d%05llu", static_cast<unsigned long long>(k));
  return k < kFanout ? std::string(name) : dir_rel(k / kFanout - 1) + "/" + name;
}

int make_file(int dirfd, const char *name, bool blockless, const std::string &data,
              std::uint64_t &ino) {
  sys::Fd fd(sys::open_at(dirfd, name, O_WRONLY | O_CREAT | O_TRUNC, 0644));
  if (!fd.valid()) return errno;
  if (blockless) {
    if (ftruncate(fd.get(), static_cast<off_t>(data.size())) != 0) return errno;
  } else if (write(fd.get(), data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
    return errno ? errno : EIO;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0) return errno;
  ino = st.st_ino;
  return 0;
}

int report_offenders(const std::vector<std::string> &offenders) {
  for (const auto &p : offenders) {
    struct stat st {};
    lstat(p.c_str(), &st);
    std::fprintf(stderr,
                 "kxsim: check: %s is meant to be restored without data but has %lld allocated "
                 "blocks\n",
                 p.c_str(), static_cast<long long>(st.st_blocks));
  }
  return fail("check failed: " + std::to_string(offenders.size()) +
              " file(s) meant to be blockless have blocks; the fixture would not look restored");
}

int run_check(const Registry &reg, const Mount &m, const std::string &dir) {
  StateStore store(state_dir_for(reg.path));
  std::vector<std::string> offenders;
  std::string error;
  if (!find_allocated_blockless(store, m, dir, offenders, error)) return fail(error);
  return offenders.empty() ? 0 : report_offenders(offenders);
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
  if (!number_option(args, "--dirs", plan.dirs, true, error) ||
      !number_option(args, "--files", plan.files, true, error) ||
      !number_option(args, "--blockless", plan.percent, false, error) ||
      !number_option(args, "--size", plan.size, false, error) ||
      !number_option(args, "--seed", plan.seed, false, error)) {
    return fail(error);
  }
  if (args.size() != 1) {
    return fail(
        "usage: kxsim populate DIR --dirs N --files N [--blockless PERCENT] "
        "[--size BYTES] [--seed S]");
  }
  if (plan.percent > 100) return fail("--blockless is a percentage (0 to 100)");
  if (plan.size == 0 || plan.size > (64u << 20)) return fail("--size must be 1 to 64 MiB");
  Registry reg;
  std::string top;
  const Mount *m = nullptr;
  if (!load_registry(reg, false, error) || !resolve_dir(reg, args[0], top, m, error, true)) {
    return fail(error);
  }
  std::vector<std::string> dirs;
  for (std::uint64_t k = 0; k < plan.dirs; ++k) {
    dirs.push_back(dir_rel(k));
    std::string p = top + "/" + dirs.back();
    if (mkdir(p.c_str(), 0755) != 0 && errno != EEXIST) {
      return fail(p + ": " + std::strerror(errno));
    }
  }
  std::vector<bool> blockless(plan.files, false);
  std::fill_n(blockless.begin(), plan.files * plan.percent / 100, true);
  std::shuffle(blockless.begin(), blockless.end(), std::mt19937_64(plan.seed));
  std::string data(plan.size, 'k');
  std::vector<BlocklessEntry> restored;
  std::string top_rel(relative_to(top, m->dir));
  for (std::uint64_t d = 0; d < std::max<std::uint64_t>(plan.dirs, 1); ++d) {
    std::string rel = plan.dirs ? dirs[d] : std::string();
    std::string abs = rel.empty() ? top : top + "/" + rel;
    sys::Fd dirfd(sys::open_at(AT_FDCWD, abs.c_str(), O_RDONLY | O_DIRECTORY));
    if (!dirfd.valid()) return fail(abs + ": " + std::strerror(errno));
    std::uint64_t step = std::max<std::uint64_t>(plan.dirs, 1);
    for (std::uint64_t f = d; f < plan.files; f += step) {
      char name[32];
      std::snprintf(name, sizeof name, "f%07llu", static_cast<unsigned long long>(f));
      std::uint64_t ino = 0;
      if (int e = make_file(dirfd.get(), name, blockless[f], data, ino)) {
        return fail(abs + "/" + name + ": " + std::strerror(e));
      }
      if (!blockless[f]) continue;
      std::string file_rel = top_rel.empty() ? "" : top_rel + "/";
      file_rel += rel.empty() ? name : rel + "/" + name;
      restored.push_back({ino, std::move(file_rel)});
    }
  }
  StateStore store(state_dir_for(reg.path));
  if (!record_blockless(store, *m, restored)) {
    return fail("cannot record blockless files under " + store.dir() + ": " + std::strerror(errno));
  }
  std::printf(
      "kxsim: populated %s: %llu directories, %llu files (%zu restored without data, "
      "%llu with data)\n",
      top.c_str(), static_cast<unsigned long long>(plan.dirs),
      static_cast<unsigned long long>(plan.files), restored.size(),
      static_cast<unsigned long long>(plan.files - restored.size()));
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
