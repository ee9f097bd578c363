#include "kxsim/core/object_state.h"

#include "kxsim/core/text_lines.h"

#include <vector>

namespace kxsim {

bool valid_state_name(std::string_view name, std::size_t max) {
  if (name.empty() || name.size() > max) return false;
  for (char c : name) {
    if (c <= ' ' || c > '~') return false;
  }
  return true;
}

namespace {
std::vector<std::string_view> split_words(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    std::size_t sp = line.find(' ');
    if (sp != 0) words.push_back(line.substr(0, sp));
    if (sp == std::string_view::npos) break;
    line.remove_prefix(sp + 1);
  }
  return words;
}

std::optional<Bytes> parse_value(std::string_view word) {
  if (word == "-") return Bytes{};
  return from_hex(word);
}

std::string value_text(const Bytes &b) {
  return b.empty() ? "-" : to_hex(b);
}

bool parse_line(const std::vector<std::string_view> &w, ObjectState &out) {
  if (w[0] == "born" && w.size() == 2) {
    out.born = std::string(w[1]);
    return true;
  }
  if (w[0] == "events" && w.size() == 2) {
    auto v = parse_number(w[1]);
    if (!v) return false;
    out.events = *v;
    return true;
  }
  if (w[0] == "attr" && w.size() == 3) {
    auto v = parse_value(w[2]);
    if (!v || v->size() > kMaxAttrValue || !valid_state_name(w[1], kMaxAttrName)) return false;
    out.attrs[std::string(w[1])] = std::move(*v);
    return true;
  }
  if (w[0] == "rep" && w.size() == 6) {
    auto flags = parse_number(w[2]);
    auto off = parse_number(w[3]);
    auto len = parse_number(w[4]);
    auto v = parse_value(w[5]);
    if (!flags || *flags > 0xFFFFFFFFu || !off || !len || !v || v->size() > kMaxRepValue ||
        !valid_state_name(w[1], kMaxRepName)) {
      return false;
    }
    out.reps[std::string(w[1])] =
        ExtRep{static_cast<std::uint32_t>(*flags), *off, *len, std::move(*v)};
    return true;
  }
  return false;
}
}  // namespace

bool parse_object_state(std::string_view text, ObjectState &out, std::string &error) {
  out = ObjectState{};
  return parse_lines(text, error, [&](std::string_view line, std::string &why) {
    auto words = split_words(line);
    if (words.empty() || words[0].starts_with('#')) return true;
    if (parse_line(words, out)) return true;
    why = "malformed \"" + std::string(line) + "\"";
    return false;
  });
}

std::string format_object_state(const ObjectState &st) {
  std::string out = "born " + (st.born.empty() ? std::string("-") : st.born) + "\n";
  if (st.events != 0) out += "events " + hex_number(st.events) + "\n";
  for (const auto &[name, value] : st.attrs) out += "attr " + name + " " + value_text(value) + "\n";
  for (const auto &[name, rep] : st.reps) {
    out += "rep " + name + " " + hex_number(rep.entry_flags) + " " + std::to_string(rep.offset) +
           " " + std::to_string(rep.length) + " " + value_text(rep.value) + "\n";
  }
  return out;
}

}  // namespace kxsim
