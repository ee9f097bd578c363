// The command line of vdpostrestore.
#pragma once

#include <cstdio>

enum class OptionsResult {
  kRun,       // settings filled in; go on with start-up
  kExitOk,    // -h: usage written, exit status 0
  kExitFail,  // bad command line: message written, exit status 1
};

// Writes the usage text to `out` (standard error for -h and mistakes).
// Does not exit.
void usage(FILE *out);

// --help (the usage text on standard output) and --version (the tool's
// version and the DMAPI library release it was built for): true when one
// was given and answered. They need no privileges and touch nothing, so
// they are answered before anything else.
bool handle_long_options(int argc, char **argv);

// Takes the walk's long options out of argv (before "--"): --jobs=N,
// --progress, --no-progress, --summary, so that getopt sees the short
// options alone. False after a bad value (message and usage written).
bool take_long_options(int &argc, char **argv);

// Reads the options ("f:bhprv") into the settings, then the mount point
// (the first argument left) into Mount_Point with its trailing slashes
// stripped. Arguments that do not fit their 1024-byte buffers are refused
// with a message naming them.
OptionsResult parse_command_line(int argc, char **argv);

// Removes trailing slashes but keeps a lone "/": "/fs///" -> "/fs".
void strip_trailing_slashes(char *path);
