// Stopping between two files when the administrator interrupts the run.
#include "stop_signals.h"

#include <signal.h>

#include <cstring>
#include <initializer_list>

#include "settings.h"

namespace {

volatile sig_atomic_t stop_signal = 0;

void note_signal(int sig) {
  stop_signal = sig;
}

}  // namespace

void catch_stop_signals() {
  struct sigaction action {};
  action.sa_handler = note_signal;
  sigemptyset(&action.sa_mask);
  // Restarted calls keep the walk's requests whole; the handler is reset so
  // that a second signal still ends a run that seems stuck.
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) (void)sigaction(sig, &action, nullptr);
}

bool stop_requested() {
  const int sig = stop_signal;
  if (sig == 0) return false;
  const char *name = sigabbrev_np(sig);
  ErrPrintf("Interrupted by SIG%s.\n", name != nullptr ? name : "?");
  return true;
}
