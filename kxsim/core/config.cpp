#include "kxsim/core/config.h"

#include "kxsim/core/hex.h"
#include "kxsim/core/text_lines.h"

#include <cstdio>

namespace kxsim {

bool path_within(std::string_view path, std::string_view dir) {
  if (dir == "/") return !path.empty() && path[0] == '/';
  if (!path.starts_with(dir)) return false;
  return path.size() == dir.size() || path[dir.size()] == '/';
}

std::string_view relative_to(std::string_view path, std::string_view dir) {
  if (dir == "/") return path.substr(1);
  path.remove_prefix(dir.size());
  if (!path.empty() && path[0] == '/') path.remove_prefix(1);
  return path;
}

const Mount *Config::find_by_path(std::string_view path) const {
  const Mount *best = nullptr;
  for (const Mount &m : mounts) {
    if (path_within(path, m.dir) && (!best || m.dir.size() > best->dir.size())) best = &m;
  }
  return best;
}

const Mount *Config::find_by_device(std::uint64_t dev) const {
  const Mount *found = nullptr;
  for (const Mount &m : mounts) {
    if (m.dev != dev) continue;
    if (found != nullptr) return nullptr;
    found = &m;
  }
  return found;
}

const Mount *Config::find_by_fsid(std::uint64_t fsid) const {
  for (const Mount &m : mounts) {
    if (m.fsid == fsid) return &m;
  }
  return nullptr;
}

namespace {
bool parse_mount_line(std::string_view line, Mount &m) {
  // "mount " FSID16 " " 0|1 " " DIR
  constexpr std::string_view kTag = "mount ";
  if (!line.starts_with(kTag)) return false;
  line.remove_prefix(kTag.size());
  if (line.size() < 16 + 1 + 1 + 1 + 1 || line[16] != ' ' || line[18] != ' ') return false;
  auto fsid = parse_number("0x" + std::string(line.substr(0, 16)));
  if (!fsid || *fsid == 0) return false;
  if (line[17] != '0' && line[17] != '1') return false;
  m.fsid = *fsid;
  m.rename_tracking = line[17] == '1';
  m.dir = std::string(line.substr(19));
  return !m.dir.empty() && m.dir[0] == '/';
}
}  // namespace

bool parse_config(std::string_view text, Config &out, std::string &error) {
  out.mounts.clear();
  return parse_lines(text, error, [&](std::string_view line, std::string &why) {
    if (line.empty() || line[0] == '#') return true;
    Mount m;
    if (!parse_mount_line(line, m)) {
      why = "malformed mount entry";
      return false;
    }
    out.mounts.push_back(std::move(m));
    return true;
  });
}

std::string format_config(const Config &cfg) {
  std::string out = "# kxsim mounts: fsid rename-tracking directory\n";
  char fsid[17];
  for (const Mount &m : cfg.mounts) {
    (void)std::snprintf(fsid, sizeof fsid, "%016llx", static_cast<unsigned long long>(m.fsid));
    out += "mount ";
    out += fsid;
    out += m.rename_tracking ? " 1 " : " 0 ";
    out += m.dir;
    out += '\n';
  }
  return out;
}

std::uint64_t default_fsid(std::string_view dir) {
  std::uint64_t h = 0xcbf29ce484222325ULL;  // FNV-1a
  for (char c : dir) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001b3ULL;
  }
  return h == 0 ? 1 : h;
}

std::string state_dir_for(const std::string &config_path) {
  return config_path + ".state";
}

std::string conf_dir_for(const std::string &config_path) {
  return state_dir_for(config_path) + "/conf";
}

}  // namespace kxsim
