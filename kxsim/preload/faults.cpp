#include "kxsim/preload/faults.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "kxsim/core/hex.h"
#include "kxsim/core/sysio.h"
#include "kxsim/preload/request_log.h"
#include "kxsim/preload/simulator.h"

extern char **environ;

namespace kxsim {

namespace {
constexpr std::pair<std::string_view, Kind> kKinds[] = {
    {"dmig", Kind::kDmig},     {"ioctl", Kind::kIoctl},   {"open", Kind::kOpen},
    {"unlink", Kind::kUnlink}, {"device", Kind::kDevice}, {"stale", Kind::kStale},
};

bool set_field(std::string_view key, const std::string &value, FaultRule &r, bool &has_kind,
               std::string &error) {
  if (key == "kind") {
    for (const auto &[name, kind] : kKinds) {
      if (name == value) {
        r.kind = kind;
        has_kind = true;
        return true;
      }
    }
    error = "unknown kind '" + value + "'";
    return false;
  }
  if (key == "path") return r.path = value, true;
  if (key == "name") return r.name = value, true;
  if (key == "run") return r.run = value, true;
  if (key == "errno") {
    r.err = errno_from_name(value);
    if (r.err > 0) return true;
    error = "unknown errno '" + value + "'";
    return false;
  }
  auto n = parse_number(value);
  if (!n) {
    error = "bad number '" + value + "' for " + std::string(key);
    return false;
  }
  if (key == "code") return r.code = *n, true;
  if (key == "skip") return r.skip = *n, true;
  if (key == "count") return r.count = *n, true;
  error = "unknown field '" + std::string(key) + "'";
  return false;
}

// Runs the command without the simulator: its own requests must not match
// the rule that started it (or any other).
void run_command(const std::string &cmd) {
  std::vector<char *> env;
  for (char **e = environ; e && *e; ++e) {
    std::string_view v(*e);
    if (v.starts_with("LD_PRELOAD=") || v.starts_with("KXSIM_FAULTS=") ||
        v.starts_with("KXSIM_FAULTS_FILE=")) {
      continue;
    }
    env.push_back(*e);
  }
  env.push_back(nullptr);
  std::string sh = "/bin/sh", dash_c = "-c", text = cmd;
  char *argv[] = {sh.data(), dash_c.data(), text.data(), nullptr};
  pid_t pid;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, argv, env.data()) != 0) {
    trace("run=%s: cannot start /bin/sh", cmd.c_str());
    return;
  }
  int status;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

bool matches(const FaultRule &r, const RequestInfo &info) {
  if (r.kind != info.kind) return false;
  if (r.code && *r.code != info.code) return false;
  if (!r.path.empty() && info.object.find(r.path) == std::string::npos &&
      info.alias.find(r.path) == std::string::npos) {
    return false;
  }
  if (!r.name.empty() && r.name != info.name) return false;
  return true;
}
}  // namespace

bool parse_fault_rule(const std::string &text, FaultRule &out, std::string &error) {
  out = FaultRule{};
  bool has_kind = false;
  std::string_view rest = text;
  while (!rest.empty()) {
    std::size_t comma = rest.find(',');
    std::string_view field = rest.substr(0, comma);
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
    // A run= command may hold commas: it takes the rest of the rule.
    if (field.starts_with("run=")) {
      field = std::string_view(field.data(), field.size() + (rest.empty() ? 0 : rest.size() + 1));
      rest = {};
    }
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    if (field.empty()) continue;
    std::size_t eq = field.find('=');
    if (eq == std::string_view::npos) {
      error = "field '" + std::string(field) + "' lacks '='";
      return false;
    }
    if (!set_field(field.substr(0, eq), std::string(field.substr(eq + 1)), out, has_kind, error)) {
      return false;
    }
  }
  if (!has_kind) {
    error = "no kind=";
    return false;
  }
  // A stale rule means what it says: the control descriptor went bad.
  if (out.kind == Kind::kStale && out.err == 0 && out.run.empty()) out.err = EBADF;
  if (!out.run.empty() && out.err == 0 && !out.count) out.count = 1;
  if (out.run.empty() && out.err == 0) {
    error = "neither errno= nor run=";
    return false;
  }
  return true;
}

void FaultSet::parse_all(const std::string &text, const char *separators) {
  std::string_view rest = text;
  while (!rest.empty()) {
    std::size_t sep = rest.find_first_of(separators);
    std::string rule(rest.substr(0, sep));
    rest = sep == std::string_view::npos ? std::string_view() : rest.substr(sep + 1);
    while (!rule.empty() && (rule.back() == ' ' || rule.back() == '\r')) rule.pop_back();
    std::size_t first = rule.find_first_not_of(' ');
    if (first == std::string::npos || rule[first] == '#') continue;
    FaultRule r;
    std::string error;
    if (parse_fault_rule(rule.substr(first), r, error)) {
      rules_.push_back(std::move(r));
    } else {
      std::string msg = "kxsim: ignoring fault rule '";
      msg += rule;
      msg += "': ";
      msg += error;
      msg += "\n";
      ssize_t n = write(2, msg.data(), msg.size());
      (void)n;
    }
  }
}

void FaultSet::refresh(const std::string &env_text, const std::string &file) {
  bool changed = env_text != env_text_;
  struct stat st {};
  bool have_file = !file.empty() && stat(file.c_str(), &st) == 0;
  if (file != file_path_ ||
      (have_file && (st.st_mtim.tv_sec != file_mtime_.tv_sec ||
                     st.st_mtim.tv_nsec != file_mtime_.tv_nsec || st.st_size != file_size_)) ||
      (!have_file && file_size_ != -1)) {
    file_path_ = file;
    file_mtime_ = have_file ? st.st_mtim : timespec{};
    file_size_ = have_file ? st.st_size : -1;
    std::string text;
    if (have_file && !sys::read_file(file, text)) text.clear();
    changed = changed || text != file_text_;
    file_text_ = std::move(text);
  }
  if (!changed) return;
  env_text_ = env_text;
  rules_.clear();
  // In the environment rules are separated by ';'; in the file by lines, so
  // that a run= command there may hold ';'.
  parse_all(env_text_, ";\n");
  parse_all(file_text_, "\n");
}

int FaultSet::check(const RequestInfo &info) {
  for (FaultRule &r : rules_) {
    if (!matches(r, info)) continue;
    if (++r.seen <= r.skip) continue;
    if (r.count && r.fired >= *r.count) continue;
    ++r.fired;
    trace("fault rule fires on %s %s", kind_name(info.kind), info.object.c_str());
    if (!r.run.empty()) {
      run_command(r.run);
      ++commands_run_;
    }
    if (r.err != 0) return r.err;
  }
  return 0;
}

}  // namespace kxsim
