#include "kxsim/core/hex.h"

#include <charconv>

namespace kxsim {

namespace {
int digit_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}
}  // namespace

std::string to_hex(const unsigned char *data, std::size_t len, bool upper) {
  const char *digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  out.reserve(len * 2);
  for (std::size_t i = 0; i < len; ++i) {
    out.push_back(digits[data[i] >> 4]);
    out.push_back(digits[data[i] & 0x0F]);
  }
  return out;
}

std::optional<Bytes> from_hex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  Bytes out;
  out.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    int hi = digit_value(text[i]);
    int lo = digit_value(text[i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out.push_back(static_cast<unsigned char>(hi * 16 + lo));
  }
  return out;
}

std::optional<std::uint64_t> parse_number(std::string_view text) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t v = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return v;
}

std::string hex_number(std::uint64_t v) {
  char buf[24];
  buf[0] = '0';
  buf[1] = 'x';
  auto [end, ec] = std::to_chars(buf + 2, buf + sizeof buf, v, 16);
  (void)ec;
  return std::string(buf, end);
}

}  // namespace kxsim
