// The parser's pieces, shared by policy_parse.cpp, policy_values.cpp,
// policy_steer.cpp and policy_target.cpp; not installed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "vdpolicy/lib/config/policy.h"

namespace vdpol {

// String values hold at most this many characters (plus the NUL).
constexpr std::size_t kValueBufSize = 512;

// State of one parse_policy_string call.
struct ParseContext {
  PolicyConfig_t *policy;
  bool do_inherit;
  char *err;  // caller's message buffer, may be null
  std::size_t err_size;
  bool targets_replaced;  // the text's first rep_target dropped inherited ones
};

// Writes one message into the caller's buffer (when there is one).
void fail(ParseContext &ctx, const char *format, ...) __attribute__((format(printf, 2, 3)));

enum class Applied {
  ok,
  syntax_error,  // reported like an option error, without parse_option's text
  failed,        // the message is already in the caller's buffer
};

// Stores one option that parse_option read: slot is below VDP_NUM_SLOTS,
// number holds numbers, booleans and choice indexes, text holds strings.
Applied apply_option(ParseContext &ctx, int slot, uint64_t number, const char *text);

// objs_namespace / was_namespace: one namespace, or a steering spec when the
// value holds a ':'. Fills the steering table; false after fail().
bool set_steering(ParseContext &ctx, std::string_view value);

// rep_target: appends one target and its words; false after fail().
bool add_rep_target(ParseContext &ctx, std::string_view value);

}  // namespace vdpol
