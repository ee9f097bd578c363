// Which configuration file the simulator uses. KXSIM_CONFIG names it; when
// the variable is unset a per-user default applies, so that a newcomer can
// run `kxsim mkfs` without setting anything:
//   $XDG_STATE_HOME/kxsim/kxsim.conf   (XDG_STATE_HOME set and absolute)
//   $HOME/.local/state/kxsim/kxsim.conf
// KXSIM_CONFIG set to the empty string switches the simulator off even when
// the default file exists.
#pragma once

#include <cstddef>
#include <string>

namespace kxsim {

// Writes the default path into buf (NUL-terminated). false when neither
// variable gives one or it does not fit. Allocates nothing: the interposer
// calls it on its fast path.
bool default_config_path(char *buf, std::size_t size);
std::string default_config_path();

// The configuration in effect: KXSIM_CONFIG when set, else the default.
// Empty when the simulator is switched off or there is no default.
std::string active_config_path();

}  // namespace kxsim
