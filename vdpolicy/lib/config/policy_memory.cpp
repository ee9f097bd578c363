// Allocation in the policy library: every string and array a policy record
// owns comes from here (malloc family, so C callers free it with free), and
// tests can make allocations fail on purpose.
#include <cstring>

#include "vdpolicy/lib/config/policy_memory.h"

namespace vdpol {

std::atomic<int> alloc_failure_countdown{-1};

namespace {

bool injected_failure() noexcept {
  int left = alloc_failure_countdown.load();
  while (left >= 0) {
    if (left == 0) return true;
    if (alloc_failure_countdown.compare_exchange_weak(left, left - 1)) return false;
  }
  return false;
}

}  // namespace

void *mem_alloc(std::size_t size) noexcept {
  return injected_failure() ? nullptr : std::malloc(size);
}

void *mem_calloc(std::size_t count, std::size_t size) noexcept {
  return injected_failure() ? nullptr : std::calloc(count, size);
}

void *mem_realloc(void *p, std::size_t size) noexcept {
  return injected_failure() ? nullptr : std::realloc(p, size);
}

char *dup_text(std::string_view text) noexcept {
  auto *copy = static_cast<char *>(mem_alloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';
  return copy;
}

char *dup_joined(std::initializer_list<std::string_view> parts) noexcept {
  std::size_t size = 1;
  for (std::string_view part : parts) size += part.size();
  auto *copy = static_cast<char *>(mem_alloc(size));
  if (copy == nullptr) return nullptr;
  char *end = copy;
  for (std::string_view part : parts) {
    std::memcpy(end, part.data(), part.size());
    end += part.size();
  }
  *end = '\0';
  return copy;
}

bool replace_text(char **field, std::string_view text) noexcept {
  char *copy = dup_text(text);
  if (copy == nullptr) return false;
  std::free(*field);
  *field = copy;
  return true;
}

void free_string_array(char **array) noexcept {
  if (array == nullptr) return;
  for (char **p = array; *p != nullptr; ++p) std::free(*p);
  std::free(array);
}

}  // namespace vdpol
