// Replication targets: `[ <schedule> ] target:/<path>@<host>:<port> ...`.
// Each rep_target option becomes one pol_target_t; each of its words is
// also appended to the policy's list of target names.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "vdpolicy/lib/config/policy_memory.h"
#include "vdpolicy/lib/parse/policy_parse_internal.h"

namespace {

using vdpol::fail;
using vdpol::ParseContext;
using OwnedText = std::unique_ptr<char, vdpol::FreeDeleter>;

struct TargetDeleter {
  void operator()(pol_target_t *t) const noexcept { vdpol::free_target(t); }
};
using OwnedTarget = std::unique_ptr<pol_target_t, TargetDeleter>;

constexpr std::string_view kPrefix = "target:/";
constexpr std::string_view kBlanks = " \t";

// The format of the message for a malformed word, or null when it is good.
const char *check_word(std::string_view word) {
  if (!word.starts_with(kPrefix)) return "Target prefix missing: '%s'";
  std::string_view rest = word.substr(kPrefix.size());
  std::size_t at = rest.find('@');
  std::size_t colon = rest.find(':');
  if (at == std::string_view::npos || colon < at) return "No host specifier in target: '%s'";
  std::string_view host = rest.substr(at + 1);
  std::size_t host_end = host.find(':');
  if (host.empty() || host.front() == '@' || host_end == std::string_view::npos)
    return "Bad host specifier in target: '%s'";
  if (host.substr(host_end + 1).find_first_of("@:") != std::string_view::npos)
    return "Bad port field after ':' in target: '%s'";
  return nullptr;
}

void fail_word(ParseContext &ctx, const char *format, std::string_view word) {
  char text[vdpol::kValueBufSize];
  std::size_t n = word.size() < sizeof text ? word.size() : sizeof text - 1;
  std::memcpy(text, word.data(), n);
  text[n] = '\0';
  fail(ctx, format, text);
}

// Parses a leading "[ schedule ]" into the target; rest moves past it.
bool take_schedule(ParseContext &ctx, std::string_view &rest, pol_target_t *target) {
  if (rest.empty() || rest.front() != '[') return true;
  std::size_t close = rest.find(']');
  if (close == std::string_view::npos) {
    fail(ctx, "Malformed policy target");
    return false;
  }
  OwnedText text(vdpol::dup_text(rest.substr(1, close - 1)));
  if (!text) {
    fail(ctx, "memory allocation failure");
    return false;
  }
  target->schedule = load_entry(text.get());
  if (target->schedule == nullptr) {
    fail(ctx, "Bad schedule in policy target: '%s'", text.get());
    return false;
  }
  rest.remove_prefix(close + 1);
  return true;
}

std::string_view next_word(std::string_view &rest) {
  std::size_t start = rest.find_first_not_of(kBlanks);
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  rest.remove_prefix(start);
  std::size_t end = rest.find_first_of(kBlanks);
  std::string_view word = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
  return word;
}

// Grows a malloc'd array to count entries; false (array kept) when out of memory.
// The arrays hold pointers, so T is a pointer type on purpose.
template <typename T>
bool grow(T *&array, std::size_t count) {
  // NOLINTNEXTLINE(bugprone-sizeof-expression)
  void *bigger = vdpol::mem_realloc(array, count * sizeof(T));
  if (bigger == nullptr) return false;
  array = static_cast<T *>(bigger);
  return true;
}

}  // namespace

namespace vdpol {

bool add_rep_target(ParseContext &ctx, std::string_view value) {
  PolicyConfig_t *p = ctx.policy;
  if (!ctx.targets_replaced) {
    // The text's own targets replace the ones the policy inherited.
    free_policy_targets(p);
    ctx.targets_replaced = true;
  }
  OwnedTarget target(static_cast<pol_target_t *>(vdpol::mem_calloc(1, sizeof(pol_target_t))));
  if (!target || (target->raw_target = dup_text(value)) == nullptr) {
    fail(ctx, "memory allocation failure");
    return false;
  }
  std::string_view rest = value.substr(std::min(value.find_first_not_of(kBlanks), value.size()));
  if (!take_schedule(ctx, rest, target.get())) return false;

  OwnedText words[VDP_MAX_TARGETS];
  uint32_t nwords = 0;
  for (std::string_view word = next_word(rest); !word.empty(); word = next_word(rest)) {
    if (p->polcfg_target_cnt + nwords >= VDP_MAX_TARGETS) {
      fail(ctx, "Too many targets to policy");
      return false;
    }
    if (const char *format = check_word(word)) {
      fail_word(ctx, format, word);
      return false;
    }
    words[nwords].reset(dup_text(word));
    if (!words[nwords]) {
      fail(ctx, "memory allocation failure");
      return false;
    }
    ++nwords;
  }
  if (nwords == 0) {
    fail(ctx, "Malformed policy target");
    return false;
  }
  if (!grow(p->polcfg_target_names, p->polcfg_target_cnt + nwords) ||
      !grow(p->polcfg_rep_target, p->polcfg_rep_targ_cnt + 1u)) {
    fail(ctx, "memory allocation failure");
    return false;
  }
  for (uint32_t i = 0; i < nwords; ++i) {
    target->target_idx[i] = p->polcfg_target_cnt;
    p->polcfg_target_names[p->polcfg_target_cnt++] = words[i].release();
  }
  target->target_cnt = nwords;
  p->polcfg_rep_target[p->polcfg_rep_targ_cnt++] = target.release();
  return true;
}

}  // namespace vdpol
