// Fault rules from KXSIM_FAULTS and KXSIM_FAULTS_FILE: requests chosen by
// kind, code, path and name fail with a chosen errno, or run a command first
// (to make races deterministic). Counters (skip, count) are per process and
// start again whenever the rule text changes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kxsim/preload/request.h"

namespace kxsim {

struct FaultRule {
  Kind kind = Kind::kIoctl;
  std::optional<std::uint64_t> code;
  std::string path;
  std::string name;
  std::uint64_t skip = 0;
  std::optional<std::uint64_t> count;
  int err = 0;  // 0: no failure (a run= rule only)
  std::string run;
  std::uint64_t seen = 0;
  std::uint64_t fired = 0;
};

// Parses one rule; false with `error` set on a bad field.
bool parse_fault_rule(const std::string &text, FaultRule &out, std::string &error);

class FaultSet {
 public:
  // Takes the rules of KXSIM_FAULTS (`env_text`) and of the file
  // KXSIM_FAULTS_FILE names (`file`, one stat of it when not empty); parses
  // them again, counters reset, when either changed.
  void refresh(const std::string &env_text, const std::string &file);
  // The errno the request must fail with, or 0. Runs the commands of the
  // rules that fire.
  int check(const RequestInfo &info);
  bool empty() const { return rules_.empty(); }
  // Number of run= commands run so far: a caller that resolved a path before
  // the check resolves it again when a command ran in between.
  std::uint64_t commands_run() const { return commands_run_; }

 private:
  void parse_all(const std::string &text, const char *separators);

  std::string env_text_;
  std::string file_path_;
  timespec file_mtime_{};
  off_t file_size_ = -1;
  std::string file_text_;
  std::vector<FaultRule> rules_;
  std::uint64_t commands_run_ = 0;
};

}  // namespace kxsim
