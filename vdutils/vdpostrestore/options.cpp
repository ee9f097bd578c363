// The command line of vdpostrestore.
#include "options.h"

#include <unistd.h>

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

}  // namespace

void usage(FILE *out) {
  (void)std::fprintf(out, kUsage, base_name(Prog), kDefaultLogFile);
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
