// A directory's policy view: the policy key in its "BFST" attribute and the
// policy summary loaded for that key; and the operator's one question.
#pragma once

#include <cstdio>

#include "rules/dir_state.h"
#include "rules/event_attr.h"

// Reads the "BFST" attribute of the directory open on `dir_fd` (named
// `dir_path`). Without one the directory has no policy of its own: result
// 0, has_vdpd_info false. With one, the policy of its key is loaded through
// the policy API, on a handle opened on `policy_path` (the directory's
// path, or one on the same file system when that is too long), into
// `loaded`: result 0, or -1 (message written) when it cannot be;
// has_vdpd_info is then true either way. A "BFST" that cannot be read for
// another reason than its absence, or is too short to hold a key, leaves
// the policy unknown (message written, result 0, policy_unknown true): the
// walk then keeps everything below the directory. The walk opens the
// directory, and reports a failure to do so as "get_dir_vdp: Cannot open
// DIR, REASON".
// `ahead`: the "BFST" as a read-ahead thread read it (null: read it now);
// `handle_ahead`: a policy handle it opened on `policy_path` (null: open
// one now).
int get_dir_vdp(int dir_fd, const char *dir_path, const char *policy_path, OwnedVdp &loaded,
                bool &has_vdpd_info, bool &policy_unknown, const BfstRead *ahead = nullptr,
                vdpol_hndl_s *handle_ahead = nullptr);

// The read behind get_dir_vdp, without a message.
BfstRead read_dir_bfst(int dir_fd);

// Asks once per run whether to keep deduplicated files; reads the answer
// from `in`. Sets Preserve_dedup_files on "y"/"Y" or at end of input, and
// Prompt_for_dedup_files in every case. Asks nothing when -b was given or
// the question was already answered.
void ask_keep_dedup_files(FILE *in);
