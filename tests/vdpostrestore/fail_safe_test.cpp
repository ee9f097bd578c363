// What a hostile administrator tries: every request the tool makes failing
// with every errno that matters, at the start and in the middle of the walk,
// and a run started from every directory. Whatever happens, the tool
// removes no file that a clean run over the whole tree keeps, logs every
// file it removes, and never ends a run that printed a fatal message with
// status 0.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tool_fixture.h"

namespace {

using toolrun::CmdResult;
using toolrun::ToolFs;
using Files = std::set<std::string>;

// Messages after which the run must not end with status 0.
constexpr const char *kFatalMessages[] = {
    "Failed to init dm session",
    "Failed to stat directory",
    "Failed to open directory",
    "get_dir_vdp: Cannot open",
    "Failed to get path-to-handle",
    "Failed to lstat file",
    "Failed to remove file",
    "Unable to open vdpolicy",
    "Unable to obtain vdpolicy information",
    "Failed to read directory",
    "changed while it was being processed",
    "Failed to find the file system",
    "Cannot place",
    "Failed to write logfile",
};

// A small restored managed file system: relation point, keyed directories
// of every kind of policy (deduplicating and object-store ones among them),
// stored and unstored blockless files. The populator's seed is fixed, so
// every instance holds the same tree.
class ManagedTree : public ToolFs {
 public:
  ManagedTree() {
    sim({"populate", mnt(), "--managed", "--dirs", "3", "--files", "30", "--keys", "4",
         "--keyed-dirs", "1", "--managed-files", "12"});
  }
  // Regular files below the mount point, relative to it.
  Files files() const {
    Files all;
    for (const auto &e : std::filesystem::recursive_directory_iterator(mnt())) {
      if (e.is_regular_file()) all.insert(e.path().string().substr(mnt().size() + 1));
    }
    return all;
  }
  // `vdpostrestore OPTIONS... -f log start` under the tree's object-storage
  // configuration; standard input is at its end, so the deduplication
  // question keeps deduplicated files.
  CmdResult run_on(const std::string &start, std::vector<std::string> options,
                   const std::string &faults = "") const {
    vdtest::RunOptions opts;
    opts.env["KXFSCONF"] = config() + ".state/conf";
    options.insert(options.end(), {"-f", log_path(), start});
    return tool(options, faults, opts);
  }
  // The files the log lists after its header (which ends with a blank
  // line), relative to the mount point.
  Files logged_files() const {
    const std::string text = log();
    const std::size_t body = text.find("\n\n");
    Files listed;
    if (body == std::string::npos) return listed;
    for (const std::string &path : vdtest::SplitLines(text.substr(body + 2))) {
      listed.insert(path.substr(mnt().size() + 1));
    }
    return listed;
  }
};

Files minus(const Files &a, const Files &b) {
  Files d;
  for (const auto &f : a) {
    if (!b.count(f)) d.insert(f);
  }
  return d;
}

bool printed_fatal_message(const std::string &err) {
  for (const char *message : kFatalMessages) {
    if (err.find(message) != std::string::npos) return true;
  }
  return false;
}

// The removals of a clean -r run, and the requests it made: how often each
// request kind, code and attribute or representation name came.
struct Baseline {
  Files removed;
  std::map<std::string, int> requests;  // "kind=ioctl,code=0x40e,name=BFST" -> count
};

std::string request_rule(const std::string &log_line) {
  std::istringstream words(log_line);
  std::string kind, code, word, rule;
  if (!(words >> kind >> code)) return rule;
  rule = "kind=" + kind;
  // Opens and unlinks carry no request code.
  if (kind == "ioctl" || kind == "dmig") rule += ",code=" + code;
  while (words >> word) {
    if (word.starts_with("name=")) rule += "," + word;
  }
  return rule;
}

Baseline clean_run() {
  Baseline b;
  ManagedTree tree;
  const Files before = tree.files();
  CmdResult r = tree.run_on(tree.mnt(), {"-r"});
  EXPECT_EQ(0, r.exit_code) << r.err;
  EXPECT_EQ("", r.err);
  b.removed = minus(before, tree.files());
  for (const std::string &line : tree.LogLines()) {
    if (std::string rule = request_rule(line); !rule.empty()) ++b.requests[rule];
  }
  // Two kinds the log does not show: the control device's open, and its
  // descriptor going stale before each read of the mount-change time.
  b.requests["kind=device"] = 1;
  b.requests["kind=stale"] = b.requests["kind=ioctl,code=0x8010e693"];
  return b;
}

// Every matching request fails; or single requests fail, one in every
// kStride from `first` on, so that the errno tests between them hit each
// one once in the middle of a walk that goes on.
constexpr int kStride = 5;
std::vector<std::string> fault_rules(const std::string &request, int count, int first,
                                     const std::string &err) {
  std::string spread;
  for (int skip = first; skip < count; skip += kStride) {
    if (!spread.empty()) spread += ';';
    spread += request + ",skip=" + std::to_string(skip) + ",count=1,errno=" + err;
  }
  return {request + ",errno=" + err, spread};
}

class PostRestoreFaultSweepTest : public ::testing::TestWithParam<int> {};

TEST_P(PostRestoreFaultSweepTest, FaultsNeverRemoveWhatACleanRunKeeps) {
  static const Baseline baseline = clean_run();
  ASSERT_FALSE(baseline.removed.empty());
  const char *const errs[kStride] = {"EIO", "ENOMEM", "EACCES", "ESTALE", "ENOENT"};
  const std::string err = errs[GetParam()];
  for (const auto &[request, count] : baseline.requests) {
    // ENOENT is the driver's word for an absent attribute, which a clean
    // run may act on.
    if (err == "ENOENT" && request.find("0x40e") != std::string::npos) continue;
    for (const std::string &rules : fault_rules(request, count, GetParam(), err)) {
      if (rules.empty()) continue;
      ManagedTree tree;
      const Files before = tree.files();
      CmdResult r = tree.run_on(tree.mnt(), {"-r"}, rules);
      const Files removed = minus(before, tree.files());
      EXPECT_EQ(Files{}, minus(removed, baseline.removed)) << rules << "\n" << r.err;
      EXPECT_EQ(removed, tree.logged_files()) << rules;
      EXPECT_TRUE(r.exit_code != 0 || !printed_fatal_message(r.err)) << rules << "\n" << r.err;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Errnos, PostRestoreFaultSweepTest, ::testing::Range(0, kStride));

// A corrupt policy file is no weaker policy: the run stops at the first
// directory it governs, having removed nothing that a clean run keeps.
TEST(PostRestoreCorruptPolicyTest, CorruptPolicyFilesRemoveNothingACleanRunKeeps) {
  static const Baseline baseline = clean_run();
  const struct {
    const char *what;
    std::function<void(const std::string &)> corrupt;
  } corruptions[] = {
      {"zeros", [](const std::string &f) { std::ofstream(f) << std::string(64, '\0'); }},
      {"NUL", [](const std::string &f) { std::ofstream(f, std::ios::app) << '\0' << "x\n"; }},
      {"/dev/zero",
       [](const std::string &f) { ::unlink(f.c_str()), ::symlink("/dev/zero", f.c_str()); }},
      {"FIFO", [](const std::string &f) { ::unlink(f.c_str()), ::mkfifo(f.c_str(), 0600); }},
  };
  for (const char *key : {"key_101", "key_102", "key_103", "key_104"}) {
    for (const auto &c : corruptions) {
      ManagedTree tree;
      c.corrupt(tree.Path(".rep_private/config/") + key);
      const Files before = tree.files();
      CmdResult r = tree.run_on(tree.mnt(), {"-r"});
      const Files removed = minus(before, tree.files());
      EXPECT_EQ(1, r.exit_code) << key << " " << c.what;
      EXPECT_NE(std::string::npos, r.err.find("Policy file ")) << key << " " << c.what << r.err;
      EXPECT_EQ(Files{}, minus(removed, baseline.removed)) << key << " " << c.what;
      EXPECT_EQ(removed, tree.logged_files()) << key << " " << c.what;
    }
  }
}

// A run on any directory reports exactly what a run on the whole tree
// reports below it: relation points and policies above the start govern it.
TEST(PostRestoreSubtreeTest, EveryStartDirectoryIsJudgedAsInTheWholeTree) {
  ManagedTree tree;
  ASSERT_EQ(0, tree.run_on(tree.mnt(), {"-p"}).exit_code);
  const Files whole = tree.logged_files();
  ASSERT_FALSE(whole.empty());
  int starts = 0;
  for (const auto &e : std::filesystem::recursive_directory_iterator(tree.mnt())) {
    if (!e.is_directory() || e.is_symlink()) continue;
    const std::string rel = e.path().string().substr(tree.mnt().size() + 1);
    Files expected;
    for (const auto &f : whole) {
      if (f.starts_with(rel + "/")) expected.insert(f);
    }
    // -p changes nothing, so every run sees the same tree.
    CmdResult r = tree.run_on(e.path().string(), {"-p"});
    ASSERT_EQ(0, r.exit_code) << rel << ": " << r.err;
    EXPECT_EQ(expected, tree.logged_files()) << "started at " << rel;
    ++starts;
  }
  EXPECT_GT(starts, 10);
}

// What a run shows and leaves, with the tree's own directory written MNT so
// that runs on two copies compare: standard output and error, the log
// after its time stamps, the exit status, the files left, and the requests
// that change something, in their order.
struct Outcome {
  std::string out, err, log, changes;
  int exit_code;
  Files left;
  bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Outcome &o) {
  return os << "exit " << o.exit_code << "\n--- out\n"
            << o.out << "--- err\n"
            << o.err << "--- log\n"
            << o.log << "--- changes\n"
            << o.changes;
}

bool changes_state(const std::string &line) {
  static const char *const kChanging[] = {
      "unlink ",      "ioctl 0x40f ", "ioctl 0x422 ", "ioctl 0x425 ", "ioctl 0x40b ",
      "ioctl 0x426 ", "ioctl 0xd31 ", "ioctl 0xd33 ", "ioctl 0xd39 ", "ioctl 0xd43 "};
  for (const char *prefix : kChanging)
    if (line.starts_with(prefix)) return true;
  return false;
}

Outcome run_with(const std::vector<std::string> &options, std::string faults) {
  ManagedTree tree;
  if (const std::size_t at = faults.find("MNT"); at != std::string::npos)
    faults.replace(at, 3, tree.mnt());
  const CmdResult r = tree.run_on(tree.mnt(), options, faults);
  // Also the policy handle's address that a failed load prints, which
  // differs between any two runs.
  auto masked = [&](std::string text) {
    for (std::size_t at; (at = text.find(tree.mnt())) != std::string::npos;)
      text.replace(at, tree.mnt().size(), "MNT");
    return std::regex_replace(text, std::regex("h=0x[0-9a-f]+"), "h=ADDR");
  };
  std::string log;
  for (const std::string &line : vdtest::SplitLines(tree.log()))
    if (!line.starts_with("#")) log += masked(line) + "\n";
  std::string changes;
  for (const std::string &line : tree.LogLines())
    if (changes_state(line)) changes += masked(line) + "\n";
  return {masked(r.out), masked(r.err), log, changes, r.exit_code, tree.files()};
}

// --jobs=8 reads ahead in another order but shows and does exactly what the
// serial walk does: with each option, and with a request of each kind
// failing at one object (a fault chosen by path lands on the same object
// whatever the order of the reads).
TEST(PostRestoreJobsTest, ReadAheadRunsAreTheSerialRunByteForByte) {
  ManagedTree probe;
  ASSERT_EQ(0, probe.run_on(probe.mnt(), {"-r"}).exit_code);
  // Each request on the first directory and on the first file it went to.
  std::map<std::string, std::string> one_object_per_request;  // request and kind -> rule
  for (const std::string &line : probe.LogLines()) {
    std::istringstream words(line);
    std::string kind, code, object;
    if (!(words >> kind >> code >> object) || !object.starts_with(probe.mnt() + "/")) continue;
    const std::string request = request_rule(line);
    const bool dir = std::filesystem::is_directory(object);
    one_object_per_request.emplace(request + (dir ? " dir" : " file"),
                                   request + ",path=MNT" + object.substr(probe.mnt().size()));
  }
  std::vector<std::string> fault_sets = {""};
  for (const auto &[request, rule] : one_object_per_request)
    fault_sets.push_back(rule + ",errno=EIO");
  ASSERT_GT(fault_sets.size(), 4u);
  const std::vector<std::string> option_sets[] = {
      {"-r", "-vvv"}, {"-vvv"}, {"-p", "-v"}, {"-r", "-b"}};
  for (const std::vector<std::string> &options : option_sets) {
    for (const std::string &faults : fault_sets) {
      if (!faults.empty() && &options != &option_sets[0]) continue;  // faults with -r -vvv
      auto serial_options = options, parallel_options = options;
      serial_options.push_back("--jobs=1");
      parallel_options.push_back("--jobs=8");
      const Outcome serial = run_with(serial_options, faults);
      const Outcome parallel = run_with(parallel_options, faults);
      EXPECT_EQ(serial, parallel) << "options " << options[0] << " faults " << faults;
    }
  }
}

}  // namespace
