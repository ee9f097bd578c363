// Stripping the policy engine's information from a file or directory after
// a restore: external representations "BLOB", "OBJF" and "REPL", the "BFST"
// attribute and, on files, the three policy event bits. Every failure is
// reported at verbosity 1 and passed over; nothing here ends the run.
#pragma once

// Strips the information of the object open on `fd`, named `path` in
// messages. Directories keep their event bits.
void remove_vdpolicy_info_fd(int fd, const char *path, int is_a_directory);

// Opens the file `name` of the directory open on `dir_fd` (without
// following a symbolic link) and strips its information.
void remove_vdpolicy_info(int dir_fd, const char *name, const char *path);
