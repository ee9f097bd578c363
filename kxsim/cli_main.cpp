// kxsim: sets up and inspects the simulated data-management driver's state.
#include <cstdio>
#include <cstring>
#include <string_view>

#include "kxsim/cli_common.h"

namespace {

constexpr const char *kUsage =
    "usage: kxsim <command> ...\n"
    "  mkfs DIR [--fsid HEX16] [--rename-tracking on|off]\n"
    "  umount DIR\n"
    "  populate DIR --dirs N --files N [--blockless PERCENT] [--size BYTES] [--seed S]\n"
    "  check DIR\n"
    "  attr set PATH NAME HEX | attr get PATH NAME | attr rm PATH NAME\n"
    "  events set PATH MASK | events get PATH\n"
    "  rep set PATH NAME HEX | rep get PATH NAME | rep rm PATH NAME\n"
    "  show PATH\n"
    "  run [--config FILE] -- CMD ARGS...\n"
    "The registry of simulated mounts is the file named by $KXSIM_CONFIG.\n";

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
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 1 : 0;
  }
  kxsim::cli::Args args(argv + 2, argv + argc);
  for (const Command &c : kCommands) {
    if (c.name == argv[1]) return c.fn(std::move(args));
  }
  std::fprintf(stderr, "kxsim: unknown command '%s'\n%s", argv[1], kUsage);
  return 1;
}
