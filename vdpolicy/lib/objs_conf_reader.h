// Internal to the policy library (C++ only, not installed): reading one
// objs.conf - the file itself, the state of the configuration opened last
// and the rules that apply each keyword's value to it. Included by
// vd_was_lib.cpp alone.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "libutil/getroot.h"
#include "libutil/kxlog.h"
#include "libutil/option_parse.h"
#include "libutil/snprintf.h"
#include "libutil/unique_fd.h"
#include "vdpolicy/lib/vd_was_lib.h"

namespace objs_conf {

// Option numbers of CloudOptions rows.
enum CloudSlot {
  kObjsId = 0,
  kProvider = 1,
  kAccessHostPorts = 4,
  kManagerHost = 5,
  kManagerPort = 6,
  kManagerHttps = 7,
  kManagerUsername = 8,
  kManagerPassword = 9,
  kNamespaces = 10,
  kAuthentication = 11,
  kUsername = 12,
  kPassword = 13,
  kUseHttps = 14,
  kUseZlib = 15,
  kServerAuth = 16,
  kCacertfile = 17,
  kCapath = 18,
  kMaxSegSize = 19,
  kTransferTimeout = 20,
  kS3VirtualHosting = 21,
  kS3SsEncryption = 22,
};

inline constexpr char kNoMemory[] = "Cannot malloc OBJS config";

struct CfgFree {
  void operator()(CLA_PARAM_T *cfg) const { was_config_param_destroy(cfg); }
};
using CfgPtr = std::unique_ptr<CLA_PARAM_T, CfgFree>;

// Reading state of one objs.conf: the configuration opened last and what
// has been given in it so far.
struct ObjsConfReader {
  explicit ObjsConfReader(cla_was_config_info *list) : info(list) {}

  cla_was_config_info *info;
  CfgPtr cur;
  bool server_auth_given = false;
  bool hosts_given = false;
  std::string reason;  // why the parse failed

  bool Fail(std::string text) {
    reason = std::move(text);
    return false;
  }
  bool Close();
  bool Open(const char *id);
  bool Apply(int slot, uint64_t number, const char *str);
  bool ApplyString(int slot, const char *str);
  bool ReadLine(const char *line);
};

inline bool ReplaceString(char **field, const char *value) {
  char *copy = strdup(value);
  if (copy == nullptr) return false;
  free(*field);
  *field = copy;
  return true;
}

inline bool PathExists(const char *path) {
  struct stat st;
  return stat(path, &st) == 0;
}

inline bool ObjsConfReader::Close() {
  if (!cur) return true;
  const char *msg = nullptr;
  if (verify_obj_store_cfg(cur.get(), &msg) != 0) return Fail(msg);
  info->config[info->config_count++] = cur.release();
  return true;
}

inline bool ObjsConfReader::Open(const char *id) {
  if (!Close()) return false;
  // The list has room for 64 configurations; a 65th is refused rather than
  // silently dropped.
  if (info->config_count >= CLA_MAX_CONFIGS)
    return Fail("Too many OBJS configurations specified, max " + std::to_string(CLA_MAX_CONFIGS) +
                " allowed.");
  cur.reset(static_cast<CLA_PARAM_T *>(calloc(1, sizeof(CLA_PARAM_T))));
  if (!cur) return Fail(kNoMemory);
  init_obj_store_cfg(cur.get());
  server_auth_given = hosts_given = false;
  if (!ReplaceString(&cur->cloud_id, id)) return Fail(kNoMemory);
  return true;
}

inline bool AddNamespaces(CLA_PARAM_T *cfg, std::string_view list, std::string *reason) {
  for (;;) {
    size_t bar = list.find('|');
    std::string_view name = list.substr(0, bar);
    if (!name.empty()) {
      if (cfg->buckets_cnt >= CLA_MAX_BUCKETS)
        return *reason = "Too many namespaces specified in OBJS config", false;
      char *copy = strndup(name.data(), name.size());
      if (copy == nullptr) return *reason = kNoMemory, false;
      cfg->buckets[cfg->buckets_cnt++] = copy;
    }
    if (bar == std::string_view::npos) return true;
    list.remove_prefix(bar + 1);
  }
}

inline bool ObjsConfReader::ApplyString(int slot, const char *str) {
  CLA_PARAM_T *c = cur.get();
  switch (slot) {
    case kProvider:
      c->provider = static_cast<CLA_PROVIDER>(getProviderByName(str));
      return c->provider != CLA_PROVIDER_NONE || Fail("Unknown Object Storage provider");
    case kAccessHostPorts: {
      if (hosts_given) {
        __kxfs_logfn(KXLOG_WARNING, "hosts redefined, ignored.\n");
        return true;
      }
      hosts_given = true;
      const char *msg = nullptr;
      return parse_host_port_str(str, c, &msg) == 0 || Fail(msg);
    }
    case kNamespaces:
      return AddNamespaces(c, str, &reason);
    case kAuthentication: {
      int auth = getAuthByName(str);
      if (auth == CLA_AUTH_UNKNOWN)
        return Fail("Unknown Authentication method. Only none|digest|awsv2 are supported.");
      c->authentication = static_cast<CLA_AUTH>(auth);
      return true;
    }
    case kCacertfile:
      if (!PathExists(str)) return Fail(std::string("Certificate file ") + str + " doesn't exist.");
      break;
    case kCapath:
      if (!PathExists(str))
        return Fail(std::string("Path for certificates ") + str + " doesn't exist.");
      break;
    default:
      break;
  }
  char **field = nullptr;
  switch (slot) {
    case kManagerHost:
      field = &c->manager_host;
      break;
    case kManagerUsername:
      field = &c->manager_username;
      break;
    case kManagerPassword:
      field = &c->manager_password;
      break;
    case kUsername:
      field = &c->username;
      break;
    case kPassword:
      field = &c->password;
      break;
    case kCacertfile:
      field = &c->cacertfile;
      break;
    case kCapath:
      field = &c->capath;
      break;
    default:
      return true;
  }
  return ReplaceString(field, str) || Fail(kNoMemory);
}

inline bool ObjsConfReader::Apply(int slot, uint64_t number, const char *str) {
  if (slot == kObjsId) return Open(str);
  if (!cur) return Fail("OBJS ID should be defined first.");
  CLA_PARAM_T *c = cur.get();
  bool flag = number != 0;
  switch (slot) {
    case kManagerPort:
      c->manager_port = static_cast<uint32_t>(number);
      return true;
    case kManagerHttps:
      c->manager_https = flag;
      return true;
    case kUseHttps:
      c->use_https = flag;
      if (!flag) return true;
      if (!server_auth_given) c->server_auth = CLA_VERIFY_PEERONLY;
      if (c->capath == nullptr) {
        std::string dir = std::string(GetKxfsConfigDir()) + "/ssl";
        if (!ReplaceString(&c->capath, dir.c_str())) return Fail(kNoMemory);
      }
      return true;
    case kUseZlib:
      c->use_zlib = flag;
      return true;
    case kServerAuth:
      c->server_auth = static_cast<CLA_VERIFY_TYPE>(number);
      server_auth_given = true;
      return true;
    case kMaxSegSize:
      c->max_seg_size = number;
      return true;
    case kTransferTimeout:
      c->was_transfertimeout = static_cast<uint32_t>(number);
      return true;
    case kS3VirtualHosting:
      c->s3_virtual_hosting = flag;
      return true;
    case kS3SsEncryption:
      c->s3_ss_encryption = flag;
      return true;
    default:
      return ApplyString(slot, str);
  }
}

inline bool ObjsConfReader::ReadLine(const char *line) {
  char str[2048];
  char msg[256];
  for (const char *p = line;;) {
    uint64_t number = 0;
    str[0] = '\0';
    int slot = parse_option(&p, CloudOptions, &number, str, sizeof str, msg, sizeof msg);
    if (slot == PARSE_OPTION_END) return true;
    if (slot == PARSE_OPTION_ERROR) return Fail(msg);
    if (!Apply(slot, number, str)) return false;
  }
}

// The message of a failed parse, newly allocated for the caller.
inline char *FailureText(const char *path, long line, const std::string &why) {
  char buf[4096];
  if (line < 0)
    KxSnprintf(buf, sizeof buf, "Unable to parse OBJS configuration file(%s): %s", path,
               why.c_str());
  else
    KxSnprintf(buf, sizeof buf, "Failed to parse OBJS configuration file(%s) at line %ld: %s", path,
               line, why.c_str());
  return strdup(buf);
}

// Reads the whole file of the given size; false with a reason when it cannot.
inline bool ReadWhole(const char *path, off_t size, std::string *text, std::string *why) {
  std::unique_ptr<char, decltype(&free)> buf(
      static_cast<char *>(malloc(static_cast<size_t>(size) + 1)), &free);
  if (!buf) return *why = "Cannot malloc OBJS config file buffer", false;
  kx::UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return *why = "Cannot open OBJS config file", false;
  size_t got = 0;
  while (got < static_cast<size_t>(size)) {
    ssize_t n = read(fd.get(), buf.get() + got, static_cast<size_t>(size) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return *why = "OBJS config file read failed", false;
    if (n == 0) break;  // the file shrank since stat
    got += static_cast<size_t>(n);
  }
  text->assign(buf.get(), got);
  return true;
}

}  // namespace objs_conf
