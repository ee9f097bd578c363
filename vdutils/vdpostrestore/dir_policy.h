// A directory's policy view: the policy key in its "BFST" attribute and the
// policy summary loaded for that key; and the operator's one question.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "dir_state.h"

// Reads the "BFST" attribute of the directory open on `dir_fd` (named
// `dir_path` in messages). Without one the directory has no policy of its
// own: result 0, has_vdpd_info false. With one, the policy named by its key
// is loaded into local_vdp: result 0, or -1 (message written) when it cannot
// be; has_vdpd_info is then true either way. The walk opens the directory,
// and reports a failure to do so as "get_dir_vdp: Cannot open DIR, REASON".
int get_dir_vdp(int dir_fd, const char *dir_path, std::optional<PolicyView> &local_vdp,
                bool &has_vdpd_info);

enum class PolicyLoad { kLoaded, kOpenFailed, kLoadFailed };

// Loads the policy with `key` from the policy store of the file system that
// holds `dir_path`. On failure a reason is written to err_msg.
PolicyLoad load_dir_policy(const char *dir_path, uint64_t key, PolicyView &view, char *err_msg,
                           std::size_t err_size);

// Asks once per run whether to keep deduplicated files; reads the answer
// from `in`. Sets Preserve_dedup_files on "y"/"Y" or at end of input, and
// Prompt_for_dedup_files in every case. Asks nothing when -b was given or
// the question was already answered.
void ask_keep_dedup_files(FILE *in);
