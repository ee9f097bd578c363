// parse_policy_string: cuts a policy text into lines, reads each line's
// options through parse_option and the keyword table, and turns a failure
// into the one message the caller gets.
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <memory>

#include "libutil/kxras.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/config/caller_message.h"
#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/parse/policy_parent.h"
#include "vdpolicy/lib/parse/policy_parse.h"
#include "vdpolicy/lib/parse/policy_parse_internal.h"

namespace vdpol {

void fail(ParseContext &ctx, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  vwrite_message(ctx.err, ctx.err_size, format, ap);
  va_end(ap);
}

}  // namespace vdpol

namespace {

using vdpol::Applied;
using vdpol::ParseContext;

constexpr std::size_t kMessageSize = 512;

enum class LineResult { ok, syntax_error, failed };

// Reads every option of one NUL-terminated line. On a syntax error,
// option_msg holds parse_option's message (or is empty).
LineResult parse_line(ParseContext &ctx, const char *line, char (&option_msg)[kMessageSize]) {
  const char *cursor = line;
  for (;;) {
    uint64_t number = 0;
    char text[vdpol::kValueBufSize];
    text[0] = '\0';
    const char *before = cursor;
    int slot = parse_option(&cursor, PolicyOptions, &number, text, sizeof text, option_msg,
                            sizeof option_msg);
    if (slot == PARSE_OPTION_END) return LineResult::ok;
    // A result that is no slot of ours, or a read that made no progress,
    // is reported as a syntax error rather than trusted.
    if (slot < 0 || slot >= VDP_NUM_SLOTS || cursor == before) return LineResult::syntax_error;
    switch (vdpol::apply_option(ctx, slot, number, text)) {
      case Applied::ok:
        break;
      case Applied::syntax_error:
        // A repeated option is told by the line number alone: the parser
        // read it without complaint, so there is no reason of its to add.
        option_msg[0] = '\0';
        return LineResult::syntax_error;
      case Applied::failed:
        return LineResult::failed;
    }
    if (*cursor == '\0') return LineResult::ok;
  }
}

// The message of a syntax error on line_no, also raised as a RAS event.
void report_syntax_error(ParseContext &ctx, int line_no, const char *option_msg) {
  const PolicyConfig_t *policy = ctx.policy;
  char msg[kMessageSize];
  if (policy->polcfg_key != 0)
    KxSnprintf(msg, sizeof msg, "Policy syntax error line %d for key: %ld", line_no,
               static_cast<long>(policy->polcfg_key));
  else
    KxSnprintf(msg, sizeof msg, "Policy syntax error line %d for name: %s", line_no,
               policy->polcfg_name != nullptr ? policy->polcfg_name : "(null)");
  // parse_option's messages end in a line feed, which the combined
  // one-line message drops. A message cut to fit its buffer has lost that
  // line feed, and then loses its last character instead.
  std::size_t len = std::strlen(option_msg);
  if (len > 0)
    vdpol::fail(ctx, "%s: %.*s", msg, static_cast<int>(len - 1), option_msg);
  else
    vdpol::fail(ctx, "%s", msg);
  RasEvent("SL_EVT_REP_DEDUPE_COMM", "%s", msg);
}

}  // namespace

extern "C" int parse_policy_string(dm_fsid_t fsid, PolicyConfig_t *policy, char *options,
                                   size_t options_len, int do_inherit, int recurse,
                                   const char **inheritance, char *ErrMsg, size_t ErrMsgSz) {
  ParseContext ctx{policy, do_inherit != 0, ErrMsg, ErrMsgSz, false};
  if (policy == nullptr) {
    errno = EINVAL;
    if (ErrMsg != nullptr && ErrMsgSz > 0)
      KxSnprintf(ErrMsg, ErrMsgSz, "%s", "No policy to parse into");
    return -1;
  }
  if (options != nullptr) {
    char *cursor = options;
    char *const end = options + options_len;
    int line_no = 0;
    // A last line without its line feed cannot be terminated in place
    // (the byte after the text may not be ours), so it is parsed from a copy.
    std::unique_ptr<char, vdpol::FreeDeleter> tail;
    while (cursor < end) {
      ++line_no;
      const char *line = cursor;
      auto *lf = static_cast<char *>(std::memchr(cursor, '\n', static_cast<size_t>(end - cursor)));
      if (lf != nullptr) {
        *lf = '\0';
        cursor = lf + 1;
      } else {
        tail.reset(vdpol::dup_text({cursor, static_cast<size_t>(end - cursor)}));
        if (!tail) {
          vdpol::fail(ctx, "memory allocation failure");
          return -1;
        }
        line = tail.get();
        cursor = end;
      }
      char option_msg[kMessageSize] = "";
      switch (parse_line(ctx, line, option_msg)) {
        case LineResult::ok:
          break;
        case LineResult::syntax_error:
          report_syntax_error(ctx, line_no, option_msg);
          return -1;
        case LineResult::failed:
          return -1;
      }
    }
  }
  if (ctx.do_inherit && policy->polcfg_inherit != nullptr)
    return vdpol::inherit_named_parent(fsid, policy, recurse, inheritance, ctx.err, ctx.err_size);
  return 0;
}
