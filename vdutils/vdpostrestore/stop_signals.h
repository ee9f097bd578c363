// SIGINT, SIGTERM and SIGHUP during the walk: the file being handled is
// finished (logged and removed, or neither) and the run then stops, so the
// log is exact. A second signal of the same kind acts at once.
#pragma once

// Installs the handlers; call once before the walk.
void catch_stop_signals();

// When a stop signal has arrived: writes "Interrupted by SIG<NAME>." to
// standard error and returns true; the walk must then stop.
[[nodiscard]] bool stop_requested();
