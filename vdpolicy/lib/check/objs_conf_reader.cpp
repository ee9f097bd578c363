// Reading one objs.conf: applying each keyword's value to the configuration
// opened last, and reading the file itself.
#include "vdpolicy/lib/check/objs_conf_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "libutil/getroot.h"
#include "libutil/kxlog.h"
#include "libutil/option_parse.h"
#include "libutil/snprintf.h"
#include "libutil/unique_fd.h"

namespace objs_conf {

namespace {

bool ReplaceString(char **field, const char *value) {
  char *copy = strdup(value);
  if (copy == nullptr) return false;
  free(*field);
  *field = copy;
  return true;
}

bool PathExists(const char *path) {
  struct stat st;
  return stat(path, &st) == 0;
}

bool AddNamespaces(CLA_PARAM_T *cfg, std::string_view list, std::string *reason) {
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

}  // namespace

bool ObjsConfReader::Fail(std::string_view text) {
  reason_ = text;
  return false;
}

bool ObjsConfReader::Close() {
  if (!cur_) return true;
  const char *msg = nullptr;
  if (verify_obj_store_cfg(cur_.get(), &msg) != 0) return Fail(msg);
  info_->config[info_->config_count++] = cur_.release();
  return true;
}

bool ObjsConfReader::Open(const char *id) {
  if (!Close()) return false;
  // The list has room for 64 configurations; a 65th is refused rather than
  // silently dropped.
  if (info_->config_count >= CLA_MAX_CONFIGS)
    return Fail("Too many OBJS configurations specified, max " + std::to_string(CLA_MAX_CONFIGS) +
                " allowed.");
  cur_.reset(static_cast<CLA_PARAM_T *>(calloc(1, sizeof(CLA_PARAM_T))));
  if (!cur_) return Fail(kNoMemory);
  init_obj_store_cfg(cur_.get());
  server_auth_given_ = hosts_given_ = false;
  if (!ReplaceString(&cur_->cloud_id, id)) return Fail(kNoMemory);
  return true;
}

bool ObjsConfReader::ApplyString(int slot, const char *str) {
  CLA_PARAM_T *c = cur_.get();
  switch (slot) {
    case kProvider:
      c->provider = static_cast<CLA_PROVIDER>(getProviderByName(str));
      return c->provider != CLA_PROVIDER_NONE || Fail("Unknown Object Storage provider");
    case kAccessHostPorts: {
      if (hosts_given_) {
        __kxfs_logfn(KXLOG_WARNING, "hosts redefined, ignored.\n");
        return true;
      }
      hosts_given_ = true;
      const char *msg = nullptr;
      return parse_host_port_str(str, c, &msg) == 0 || Fail(msg);
    }
    case kNamespaces:
      return AddNamespaces(c, str, &reason_);
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

bool ObjsConfReader::Apply(int slot, uint64_t number, const char *str) {
  if (slot == kObjsId) return Open(str);
  if (!cur_) return Fail("OBJS ID should be defined first.");
  CLA_PARAM_T *c = cur_.get();
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
      if (!server_auth_given_) c->server_auth = CLA_VERIFY_PEERONLY;
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
      server_auth_given_ = true;
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

bool ObjsConfReader::ReadLine(const char *line) {
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

char *FailureText(const char *path, long line, const std::string &why) {
  char buf[4096];
  if (line < 0)
    KxSnprintf(buf, sizeof buf, "Unable to parse OBJS configuration file(%s): %s", path,
               why.c_str());
  else
    KxSnprintf(buf, sizeof buf, "Failed to parse OBJS configuration file(%s) at line %ld: %s", path,
               line, why.c_str());
  return strdup(buf);
}

bool ReadWhole(const char *path, off_t size, std::string *text, std::string *why) {
  std::unique_ptr<char, decltype(&free)> buf(
      static_cast<char *>(malloc(static_cast<size_t>(size) + 1)), &free);
  if (!buf) return *why = "Cannot malloc OBJS config file buffer", false;
  // O_NONBLOCK: a FIFO put in the file's place since the stat must not
  // block the reader.
  kx::UniqueFd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (fd.get() < 0) return *why = "Cannot open OBJS config file", false;
  size_t got = 0;
  while (got < static_cast<size_t>(size)) {
    ssize_t n = read(fd.get(), buf.get() + got, static_cast<size_t>(size) - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return *why = "OBJS config file read failed", false;
    if (n == 0) break;  // the file shrank since stat
    got += static_cast<size_t>(n);
  }
  // A NUL would end a line early and drop the options after it.
  if (std::memchr(buf.get(), '\0', got) != nullptr)
    return *why = "OBJS config file holds a NUL byte", false;
  text->assign(buf.get(), got);
  return true;
}

}  // namespace objs_conf
