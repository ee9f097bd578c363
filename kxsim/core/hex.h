// Hexadecimal text of byte strings, as written in state files and on the
// command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kxsim {

using Bytes = std::vector<unsigned char>;

// Two digits per byte, high nibble first.
std::string to_hex(const unsigned char *data, std::size_t len, bool upper = false);
inline std::string to_hex(const Bytes &b, bool upper = false) {
  return to_hex(b.data(), b.size(), upper);
}

// Decodes digits of either case; nullopt on an odd length or a non-digit.
std::optional<Bytes> from_hex(std::string_view text);

// Parses "0x..." hexadecimal or plain decimal; nullopt on anything else or
// on overflow.
std::optional<std::uint64_t> parse_number(std::string_view text);

// "0x" followed by lower-case digits, no padding.
std::string hex_number(std::uint64_t v);

}  // namespace kxsim
