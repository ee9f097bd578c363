// kxsim attr / events / rep / show: the driver's state of one file.
#include <cstdio>

#include "kxsim/cli/cli_common.h"
#include "kxsim/core/handle.h"
#include "kxsim/core/hex.h"

namespace kxsim::cli {

namespace {
// Loads a file's state for a subcommand; the object and store stay with the
// caller for the save.
struct Loaded {
  Registry reg;
  Object obj;
  StateStore store{""};
  ObjectState st;
};

bool load(const std::string &path, Loaded &l, std::string &error) {
  if (!load_registry(l.reg, false, error) || !find_object(l.reg, path, l.obj, error)) return false;
  l.store = StateStore(state_dir_for(l.reg.path));
  if (!l.store.load(l.obj.mount->fsid, l.obj.id.ino, l.obj.id.born, l.st)) {
    error = "unreadable driver state: " + l.store.last_error();
    return false;
  }
  return true;
}

int save(Loaded &l) {
  if (!l.store.save(l.obj.mount->fsid, l.obj.id.ino, l.st)) {
    return fail("cannot write driver state under " + l.store.dir());
  }
  return 0;
}

std::optional<Bytes> value_arg(const std::string &text) {
  if (text == "-") return Bytes{};
  return from_hex(text);
}

int bad_name(const std::string &name, std::size_t max) {
  return fail("'" + name + "': names are 1 to " + std::to_string(max) +
              " printable characters without blanks");
}
// What set / get / rm of one kind of named value (an attribute or an
// external representation) differ in; the command line shape is shared.
struct NamedValueKind {
  const char *command;    // "attr" or "rep"
  const char *missing;    // "attribute" or "external representation"
  const char *too_large;  // message for an oversized value
  std::size_t max_name;
  std::size_t max_value;
};

template <typename Map, typename Wrap, typename Value>
int named_value_cmd(Args args, const NamedValueKind &k, Map ObjectState::*field, Wrap wrap,
                    Value value_of) {
  if (args.size() < 3 || (args[0] == "set") != (args.size() == 4) ||
      (args[0] != "set" && args.size() != 3)) {
    return fail(std::string("usage: kxsim ") + k.command +
                " set PATH NAME HEX | get PATH NAME | rm PATH NAME");
  }
  const std::string &name = args[2];
  if (!valid_state_name(name, k.max_name)) return bad_name(name, k.max_name);
  Loaded l;
  std::string error;
  if (!load(args[1], l, error)) return fail(error);
  Map &map = l.st.*field;
  if (args[0] == "set") {
    auto v = value_arg(args[3]);
    if (!v) return fail("'" + args[3] + "' is not hexadecimal");
    if (v->size() > k.max_value) return fail(k.too_large);
    map[name] = wrap(*v);
    return save(l);
  }
  auto it = map.find(name);
  if (it == map.end()) return fail(args[1] + ": no " + k.missing + " " + name);
  if (args[0] == "get") {
    std::printf("%s\n", to_hex(value_of(it->second)).c_str());
    return 0;
  }
  if (args[0] != "rm")
    return fail(std::string("unknown ") + k.command + " subcommand '" + args[0] + "'");
  map.erase(it);
  return save(l);
}
}  // namespace

int cmd_attr(Args args) {
  static const NamedValueKind kind{"attr", "attribute", "attribute values hold at most 128 bytes",
                                   kMaxAttrName, kMaxAttrValue};
  return named_value_cmd(
      std::move(args), kind, &ObjectState::attrs, [](const Bytes &v) { return v; },
      [](const Bytes &v) -> const Bytes & { return v; });
}

int cmd_events(Args args) {
  bool set = !args.empty() && args[0] == "set";
  if (args.size() != (set ? 3u : 2u) || (!set && args[0] != "get")) {
    return fail("usage: kxsim events set PATH MASK | events get PATH");
  }
  Loaded l;
  std::string error;
  if (!load(args[1], l, error)) return fail(error);
  if (!set) {
    std::printf("%s\n", hex_number(l.st.events).c_str());
    return 0;
  }
  auto mask = parse_number(args[2]);
  if (!mask) return fail("'" + args[2] + "' is not a 64-bit number");
  l.st.events = *mask;
  return save(l);
}

int cmd_rep(Args args) {
  static const NamedValueKind kind{"rep", "external representation",
                                   "representation values hold at most 65536 bytes", kMaxRepName,
                                   kMaxRepValue};
  return named_value_cmd(
      std::move(args), kind, &ObjectState::reps,
      [](const Bytes &v) {
        return ExtRep{0, 0, 0, v};
      },
      [](const ExtRep &r) -> const Bytes & { return r.value; });
}

int cmd_show(Args args) {
  if (args.size() != 1) return fail("usage: kxsim show PATH");
  Loaded l;
  std::string error;
  if (!load(args[0], l, error)) return fail(error);
  const Object &o = l.obj;
  std::printf("path %s\nmount %s\nfsid %016llx\ninode %llu\ngeneration %u\nhandle %s\n",
              o.path.c_str(), o.mount->dir.c_str(), static_cast<unsigned long long>(o.mount->fsid),
              static_cast<unsigned long long>(o.id.ino), o.id.generation,
              file_handle_hex(o.mount->fsid, o.id.ino, o.id.generation).c_str());
  std::printf("events %s\n", hex_number(l.st.events).c_str());
  for (const auto &[name, v] : l.st.attrs) {
    std::printf("attr %s %s\n", name.c_str(), v.empty() ? "-" : to_hex(v).c_str());
  }
  for (const auto &[name, r] : l.st.reps) {
    std::printf("rep %s flags=%s offset=%llu length=%llu value=%s\n", name.c_str(),
                hex_number(r.entry_flags).c_str(), static_cast<unsigned long long>(r.offset),
                static_cast<unsigned long long>(r.length),
                r.value.empty() ? "-" : to_hex(r.value).c_str());
  }
  return 0;
}

}  // namespace kxsim::cli
