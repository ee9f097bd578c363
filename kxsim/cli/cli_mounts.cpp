// kxsim mkfs / umount: registering and unregistering simulated mounts.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "kxsim/cli/cli_common.h"
#include "kxsim/core/hex.h"
#include "kxsim/core/path_resolve.h"
#include "kxsim/core/sysio.h"

namespace kxsim::cli {

namespace {
bool parse_fsid(const std::string &text, std::uint64_t &out) {
  std::string digits = text.starts_with("0x") || text.starts_with("0X") ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 16) return false;
  auto v = parse_number("0x" + digits);
  if (!v || *v == 0) return false;
  out = *v;
  return true;
}

bool canonical_dir(const std::string &arg, std::string &out, std::string &error) {
  std::string abs = absolute_path(AT_FDCWD, arg.c_str());
  if (abs.empty() || !sys::make_dirs(abs)) {
    error = arg + ": cannot create directory: " + std::strerror(errno);
    return false;
  }
  auto c = canonical_path(abs, true);
  if (!c) {
    error = arg + ": " + std::strerror(errno);
    return false;
  }
  out = *c;
  return true;
}
}  // namespace

int cmd_mkfs(Args args) {
  auto fsid_text = take_option(args, "--fsid");
  auto tracking = take_option(args, "--rename-tracking");
  if (args.size() != 1 || (fsid_text && fsid_text->empty())) {
    return fail("usage: kxsim mkfs DIR [--fsid HEX16] [--rename-tracking on|off]");
  }
  if (tracking && *tracking != "on" && *tracking != "off") {
    return fail("--rename-tracking takes 'on' or 'off', not '" + *tracking + "'");
  }
  Registry reg;
  std::string error;
  if (!load_registry(reg, true, error)) return fail(error);
  Mount m;
  if (!canonical_dir(args[0], m.dir, error)) return fail(error);
  // Registering a mount again changes only what is asked for: its state is
  // kept under its fsid.
  m.fsid = default_fsid(m.dir);
  for (const Mount &o : reg.config.mounts) {
    if (o.dir == m.dir) m = o;
  }
  if (fsid_text && !parse_fsid(*fsid_text, m.fsid)) {
    return fail("--fsid needs 1 to 16 hexadecimal digits, not 0: '" + *fsid_text + "'");
  }
  if (tracking) m.rename_tracking = *tracking == "on";
  std::erase_if(reg.config.mounts, [&](const Mount &o) { return o.dir == m.dir; });
  if (const Mount *o = reg.config.find_by_fsid(m.fsid)) {
    return fail("fsid " + hex_number(m.fsid) + " is already used by " + o->dir);
  }
  reg.config.mounts.push_back(m);
  if (!save_registry(reg, error)) return fail(error);
  std::printf("kxsim: %s is a simulated kxfs file system, fsid %016llx\n", m.dir.c_str(),
              static_cast<unsigned long long>(m.fsid));
  return 0;
}

int cmd_umount(Args args) {
  if (args.size() != 1) return fail("usage: kxsim umount DIR");
  Registry reg;
  std::string error;
  if (!load_registry(reg, false, error)) return fail(error);
  std::string abs = absolute_path(AT_FDCWD, args[0].c_str());
  auto c = abs.empty() ? std::nullopt : canonical_path(abs, true);
  std::string dir = c ? *c : abs;
  std::size_t before = reg.config.mounts.size();
  std::erase_if(reg.config.mounts, [&](const Mount &o) { return o.dir == dir; });
  if (reg.config.mounts.size() == before) return fail(args[0] + ": not a simulated mount");
  if (!save_registry(reg, error)) return fail(error);
  return 0;
}

}  // namespace kxsim::cli
