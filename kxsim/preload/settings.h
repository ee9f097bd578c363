// The interposer's settings, from the environment:
//   KXSIM_CONFIG       the configuration file; unset: the per-user default
//                      (config_path.h); empty: the simulator is off
//   KXSIM_LOG          the request log (request_log.h)
//   KXSIM_FAULTS       fault rules; KXSIM_FAULTS_FILE, a file of them
//   KXSIM_TRACE        "1": trace the simulator's work on standard error
//   KXSIM_LATENCY_US   microseconds every driver request waits before it is
//                      served, as on a busy controller; requests from
//                      several threads wait at the same time
//
// Read once per process, and again only after the environment changed. A
// process changes its own environment through setenv, unsetenv, putenv and
// clearenv, which the library wraps to count the changes (wrap_env.cpp), or
// by assigning `environ`, which every check compares. So a check that finds
// nothing changed is two loads and two compares, and a test that sets a
// variable between two requests is obeyed by the second. Not noticed: a
// program writing into an environment string in place.
//
// Whether the per-user default exists is the file system's fact, not the
// environment's: it is looked up at most once a second while no request
// runs, and on every request (Simulator::refresh stats the configuration
// anyway and reports what it found).
//
// Threading: the queries are safe from any thread and take no lock unless
// the environment changed (or the default's once-a-second look is due); a
// re-read then runs under the simulator's lock. current_settings() requires
// that lock (Simulator::Scope).
#pragma once

#include <cstdint>
#include <string>

namespace kxsim {

struct Settings {
  std::string config;              // the configuration in effect; empty: none
  bool config_is_default = false;  // the per-user default (KXSIM_CONFIG unset)
  std::string log;
  std::string faults;
  std::string faults_file;
  bool trace = false;
};

// True when a configuration is in effect: KXSIM_CONFIG names one, or it is
// unset and the per-user default exists. Otherwise every wrapper is a plain
// pass-through.
bool simulator_configured();
// True when a request log or fault rules are configured: then opens and
// unlinks inside simulated mounts must be observed even when the simulator
// has nothing else to do with them.
bool observation_wanted();
bool tracing();
// Waits KXSIM_LATENCY_US (if set) before a driver request: without the
// simulator's lock, so that concurrent requests overlap as on a driver.
void wait_request_latency();

// Changes whenever the settings are read again.
std::uint64_t settings_version();
// A copy of the settings in effect. Requires the simulator's lock.
Settings current_settings();
// What a request found of the per-user default. Requires the lock.
void note_default_config(bool present);

// Called by the environment wrappers after every change.
void note_environment_change();

}  // namespace kxsim
