#include "kxsim/core/blockless_list.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "kxsim/core/hex.h"
#include "kxsim/core/sysio.h"

namespace kxsim {

namespace {
std::string list_path(const StateStore &store, const Mount &m) {
  return store.fs_dir(m.fsid) + "/blockless";
}
}  // namespace

bool record_blockless(const StateStore &store, const Mount &m,
                      const std::vector<BlocklessEntry> &entries) {
  if (!sys::make_dirs(store.fs_dir(m.fsid))) return false;
  std::string text;
  for (const auto &e : entries) text += std::to_string(e.ino) + " " + e.rel_path + "\n";
  return text.empty() || sys::append_file(list_path(store, m), text);
}

bool find_allocated_blockless(const StateStore &store, const Mount &m, const std::string &dir,
                              std::vector<std::string> &offenders, std::string &error) {
  std::string text;
  std::string path = list_path(store, m);
  if (!sys::read_file(path, text)) {
    if (errno == ENOENT) return true;
    error = path + ": " + std::strerror(errno);
    return false;
  }
  std::string_view rest = text;
  while (!rest.empty()) {
    std::size_t nl = rest.find('\n');
    std::string_view line = rest.substr(0, nl);
    rest = nl == std::string_view::npos ? std::string_view() : rest.substr(nl + 1);
    std::size_t sp = line.find(' ');
    if (line.empty()) continue;
    auto ino = sp == std::string_view::npos ? std::nullopt : parse_number(line.substr(0, sp));
    if (!ino) {
      error = path + ": malformed line \"" + std::string(line) + "\"";
      return false;
    }
    std::string abs = m.dir + "/" + std::string(line.substr(sp + 1));
    if (!path_within(abs, dir)) continue;
    struct stat st;
    if (lstat(abs.c_str(), &st) != 0 || st.st_ino != *ino) continue;
    if (st.st_blocks != 0) offenders.push_back(abs);
  }
  return true;
}

}  // namespace kxsim
