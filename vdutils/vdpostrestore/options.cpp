// The command line of vdpostrestore.
#include "options.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "settings.h"

namespace {

// The text is the tool's long-standing help; the unclosed bracket and the
// first line's missing -b and -p are kept as administrators know them.
constexpr char kUsage[] =
    "Usage: %s [-f <log file> [-hrv] <mount_point>\n"
    "-f <log file> specifies alternate file for logging of messages indicating\n"
    "   if a file with no allocation was or was not removed.\n"
    "   Default is %s.\n"
    "-h print this help and exit.\n"
    "-b keep deduplicated files stored in blockpool.\n"
    "-p preserve vdpolicy information (BLOBs, attributes, event bits)\n"
    "-r remove all files with no allocations under <mount_point>\n"
    "-v be verbose in command output (repeat to increase verbosity)\n"
    "   Normal command output goes to stdout, Error ouptut goes to stderr.\n"
    "\n"
    "Note: Use -r with caution and only under the direction of technical support.\n"
    "\n";

// The part after the last '/', as the GNU basename gives it.
const char *base_name(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

// Copies `arg` into a settings buffer, refusing more than `max_len`
// characters.
bool copy_argument(char (&buffer)[kPathBufferSize], const char *arg, const char *what,
                   std::size_t max_len = kPathBufferSize - 1) {
  std::string_view text(arg);
  if (text.size() > max_len) {
    ErrPrintf("%s is too long (%zu characters, at most %zu): %s\n", what, text.size(), max_len,
              arg);
    return false;
  }
  std::memcpy(buffer, text.data(), text.size() + 1);
  return true;
}

// Shown by --help after the usage text.
constexpr char kLongOptions[] =
    "Long options:\n"
    "--jobs=N      read ahead with N threads (1 to %d; default 1). Output, log,\n"
    "              exit status and every change are those of --jobs=1.\n"
    "--progress    show a progress line on standard error (default when it is a\n"
    "              terminal); --no-progress never shows it.\n"
    "--summary     print one line of counts and the elapsed time at the end.\n"
    "--version     print the version and exit.\n";

// The value of --jobs=N, or 0 when it is not a number from 1 to kMaxJobs.
int32_t jobs_value(std::string_view text) {
  if (text.empty() || text.size() > 3) return 0;
  int32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return 0;
    value = value * 10 + (c - '0');
  }
  return value >= 1 && value <= kMaxJobs ? value : 0;
}

// One of the walk's long options, taken out of argv; false when it is one
// of them with a bad value (message written).
enum class LongOption { kNone, kTaken, kBad };
LongOption take_long_option(std::string_view arg) {
  if (arg == "--progress" || arg == "--no-progress") {
    Show_Progress = arg == "--progress" ? 1 : 0;
    return LongOption::kTaken;
  }
  if (arg == "--summary") {
    Print_Summary = 1;
    return LongOption::kTaken;
  }
  if (arg == "--jobs" || arg.starts_with("--jobs=")) {
    const std::string_view value = arg.substr(std::min(arg.size(), sizeof "--jobs=" - 1));
    Jobs = jobs_value(value);
    if (Jobs != 0) return LongOption::kTaken;
    ErrPrintf("Invalid --jobs value '%.*s': give a number of threads from 1 to %d.\n",
              static_cast<int>(value.size()), value.data(), kMaxJobs);
    return LongOption::kBad;
  }
  return LongOption::kNone;
}

}  // namespace

void usage(FILE *out) {
  (void)std::fprintf(out, kUsage, base_name(Prog), kDefaultLogFile);
}

bool take_long_options(int &argc, char **argv) {
  int kept = 1;
  int i = 1;
  for (; i < argc && argv[i] != nullptr && std::strcmp(argv[i], "--") != 0; ++i) {
    switch (take_long_option(argv[i])) {
      case LongOption::kTaken:
        continue;
      case LongOption::kBad:
        usage(stderr);
        return false;
      case LongOption::kNone:
        argv[kept++] = argv[i];
    }
  }
  while (i < argc) argv[kept++] = argv[i++];
  argv[kept] = nullptr;
  argc = kept;
  return true;
}

bool handle_long_options(int argc, char **argv) {
  for (int i = 1; i < argc && argv[i] != nullptr && std::strcmp(argv[i], "--") != 0; ++i) {
    if (std::strcmp(argv[i], "--version") == 0) {
      (void)std::printf("%s %s\nBuilt for the DMAPI library: %s\n", base_name(Prog), VD_VERSION,
                        kDmapiVersion);
      return true;
    }
    if (std::strcmp(argv[i], "--help") == 0) {
      usage(stdout);
      (void)std::printf(kLongOptions, kMaxJobs);
      return true;
    }
  }
  return false;
}

void strip_trailing_slashes(char *path) {
  std::size_t len = std::strlen(path);
  while (len >= 2 && path[len - 1] == '/') path[--len] = '\0';
}

OptionsResult parse_command_line(int argc, char **argv) {
  int opt;
  while ((opt = getopt(argc, argv, "f:bhprv")) != -1) {
    switch (opt) {
      case 'f':
        if (!copy_argument(LogFileName, optarg, "Log file name")) return OptionsResult::kExitFail;
        break;
      case 'b':
        Preserve_dedup_files = 1;
        break;
      case 'h':
        usage(stderr);
        return OptionsResult::kExitOk;
      case 'p':
        Preserve_vdpolicy_info = 1;
        break;
      case 'r':
        Remove_Files = 1;
        break;
      case 'v':
        if (Verbosity < INT32_MAX) ++Verbosity;
        break;
      default:
        usage(stderr);
        return OptionsResult::kExitFail;
    }
  }
  if (optind >= argc || argv[optind] == nullptr || argv[optind][0] == '\0') {
    usage(stderr);
    return OptionsResult::kExitFail;
  }
  if (!copy_argument(Mount_Point, argv[optind], "Mount point", kMaxMountPointLength))
    return OptionsResult::kExitFail;
  strip_trailing_slashes(Mount_Point);
  return OptionsResult::kRun;
}
