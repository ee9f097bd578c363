// kxsim: sets up and inspects the simulated data-management driver's state.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "kxsim/cli/cli_common.h"
#include "kxsim/core/config_path.h"

namespace {

constexpr const char *kUsage =
    "usage: kxsim <command> ...\n"
    "  mkfs DIR [--fsid HEX16] [--rename-tracking on|off]\n"
    "  umount DIR\n"
    "  populate DIR --dirs N --files N [--blockless PERCENT] [--size BYTES] [--seed S]\n"
    "  populate DIR --managed [--dirs N (16)] [--files N (200)] [--blockless PERCENT (25)]\n"
    "      [--keys N (4)] [--keyed-dirs N (2)] [--relation-points N (1)]\n"
    "      [--managed-files N (20)] [--stored PERCENT (50)] [--size BYTES] [--seed S]\n"
    "  check DIR\n"
    "  attr set PATH NAME HEX | attr get PATH NAME | attr rm PATH NAME\n"
    "  events set PATH MASK | events get PATH\n"
    "  rep set PATH NAME HEX | rep get PATH NAME | rep rm PATH NAME\n"
    "  show PATH\n"
    "  run [--config FILE] -- CMD ARGS...\n"
    "  --version | --help\n"
    "The registry of simulated mounts is the file named by $KXSIM_CONFIG. When that\n"
    "is unset it is $XDG_STATE_HOME/kxsim/kxsim.conf, else ~/.local/state/kxsim/kxsim.conf\n";

#ifndef KXSIM_VERSION
#define KXSIM_VERSION "unknown"
#endif

void usage(FILE *to) {
  std::string path = kxsim::default_config_path();
  (void)std::fprintf(
      to, "%s(%s%s);\n`mkfs` creates it. An empty KXSIM_CONFIG switches the simulator off.\n",
      kUsage, path.empty() ? "neither variable is set here" : "here: ", path.c_str());
}

struct Command {
  std::string_view name;
  int (*fn)(kxsim::cli::Args);
};

constexpr Command kCommands[] = {
    {"mkfs", kxsim::cli::cmd_mkfs},         {"umount", kxsim::cli::cmd_umount},
    {"populate", kxsim::cli::cmd_populate}, {"check", kxsim::cli::cmd_check},
    {"attr", kxsim::cli::cmd_attr},         {"events", kxsim::cli::cmd_events},
    {"rep", kxsim::cli::cmd_rep},           {"show", kxsim::cli::cmd_show},
    {"run", kxsim::cli::cmd_run},
};

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2 || std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0) {
    usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 1 : 0;
  }
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("kxsim %s\n", KXSIM_VERSION);
    return 0;
  }
  kxsim::cli::Args args(argv + 2, argv + argc);
  for (const Command &c : kCommands) {
    if (c.name == argv[1]) return c.fn(std::move(args));
  }
  (void)std::fprintf(stderr, "kxsim: unknown command '%s'\n", argv[1]);
  usage(stderr);
  return 1;
}
