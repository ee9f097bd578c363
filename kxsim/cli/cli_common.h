// Layer cli (kxsim/cli/): the `kxsim` command. May call populate/ and core/;
// it never links the preload library, which it only names to the loader.
//
// Shared pieces of the kxsim command-line tool. Every subcommand returns its
// exit status: 0 on success, 1 after printing a message to standard error.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kxsim/core/config.h"
#include "kxsim/core/identity.h"
#include "kxsim/core/state_store.h"

namespace kxsim::cli {

using Args = std::vector<std::string>;

// Prints "kxsim: <msg>" to standard error and returns 1.
int fail(const std::string &msg);

// The configuration in effect (config_path.h), or `override` when not empty.
struct Registry {
  std::string path;
  Config config;
};
// Loads it; a missing file is an empty registry when `may_be_missing`.
bool load_registry(Registry &reg, bool may_be_missing, std::string &error,
                   const std::string &override_path = {});
bool save_registry(const Registry &reg, std::string &error);

// A file named on the command line, inside a registered mount.
struct Object {
  const Mount *mount = nullptr;
  std::string path;  // canonical absolute (final link not followed)
  Identity id;
};
bool find_object(const Registry &reg, const std::string &arg, Object &out, std::string &error);

// The value of option `name` in args (removing both), or nullopt.
std::optional<std::string> take_option(Args &args, const std::string &name);

int cmd_mkfs(Args args);
int cmd_umount(Args args);
int cmd_attr(Args args);
int cmd_events(Args args);
int cmd_rep(Args args);
int cmd_show(Args args);
int cmd_populate(Args args);
int cmd_check(Args args);
int cmd_run(Args args);

}  // namespace kxsim::cli
