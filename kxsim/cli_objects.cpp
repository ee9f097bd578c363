// kxsim attr / events / rep / show: the driver's state of one file.
#include <cstdio>

#include "kxsim/cli_common.h"
#include "kxsim/handle.h"
#include "kxsim/hex.h"

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
}  // namespace

int cmd_attr(Args args) {
  if (args.size() < 3 || (args[0] == "set") != (args.size() == 4) ||
      (args[0] != "set" && args.size() != 3)) {
    return fail("usage: kxsim attr set PATH NAME HEX | get PATH NAME | rm PATH NAME");
  }
  const std::string &name = args[2];
  if (!valid_state_name(name, kMaxAttrName)) return bad_name(name, kMaxAttrName);
  Loaded l;
  std::string error;
  if (!load(args[1], l, error)) return fail(error);
  if (args[0] == "set") {
    auto v = value_arg(args[3]);
    if (!v) return fail("'" + args[3] + "' is not hexadecimal");
    if (v->size() > kMaxAttrValue) return fail("attribute values hold at most 128 bytes");
    l.st.attrs[name] = *v;
    return save(l);
  }
  auto it = l.st.attrs.find(name);
  if (it == l.st.attrs.end()) return fail(args[1] + ": no attribute " + name);
  if (args[0] == "get") {
    std::printf("%s\n", to_hex(it->second).c_str());
    return 0;
  }
  if (args[0] != "rm") return fail("unknown attr subcommand '" + args[0] + "'");
  l.st.attrs.erase(it);
  return save(l);
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
  if (args.size() < 3 || (args[0] == "set") != (args.size() == 4) ||
      (args[0] != "set" && args.size() != 3)) {
    return fail("usage: kxsim rep set PATH NAME HEX | get PATH NAME | rm PATH NAME");
  }
  const std::string &name = args[2];
  if (!valid_state_name(name, kMaxRepName)) return bad_name(name, kMaxRepName);
  Loaded l;
  std::string error;
  if (!load(args[1], l, error)) return fail(error);
  if (args[0] == "set") {
    auto v = value_arg(args[3]);
    if (!v) return fail("'" + args[3] + "' is not hexadecimal");
    if (v->size() > kMaxRepValue) return fail("representation values hold at most 65536 bytes");
    l.st.reps[name] = ExtRep{0, 0, 0, *v};
    return save(l);
  }
  auto it = l.st.reps.find(name);
  if (it == l.st.reps.end()) return fail(args[1] + ": no external representation " + name);
  if (args[0] == "get") {
    std::printf("%s\n", to_hex(it->second.value).c_str());
    return 0;
  }
  if (args[0] != "rm") return fail("unknown rep subcommand '" + args[0] + "'");
  l.st.reps.erase(it);
  return save(l);
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
