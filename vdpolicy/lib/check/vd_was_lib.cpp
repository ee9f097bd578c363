// Object-storage configurations: records, name tables, endpoint lists and
// the check of a policy's objs_id/objs_namespace against objs.conf.
#include "vdpolicy/lib/check/vd_was_lib.h"

#include <strings.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "libutil/getroot.h"
#include "libutil/kxlog.h"
#include "libutil/snprintf.h"
#include "vdpolicy/lib/check/objs_conf_reader.h"

extern "C" {
int was_tune_keepalive_idle = 60;
int was_tune_keepalive_intvl = 30;
}

namespace {

struct NameValue {
  const char *name;
  int value;
};

constexpr NameValue s_providers[] = {
    {"Fenwyk", CLA_PROVIDER_FENWYK},
    {"FenwykS3", CLA_PROVIDER_FENWYK_S3},
    {"AmazonS3", CLA_PROVIDER_AMAZON_S3},
    {"SwiftS3", CLA_PROVIDER_SWIFT_S3},
};

constexpr NameValue s_auths[] = {
    {"none", CLA_AUTH_NONE},
    {"basic", CLA_AUTH_BASIC},
    {"digest", CLA_AUTH_DIGEST},
    {"digest_ie", CLA_AUTH_DIGEST_IE},
    {"negotiate", CLA_AUTH_NEGOTIATE},
    {"ntlm", CLA_AUTH_NTLM},
    {"any", CLA_AUTH_ANY},
    {"anysafe", CLA_AUTH_ANYSAFE},
    {"PKI", CLA_AUTH_PKI},
    {"AWSV2", CLA_AUTH_AWSV2},
    {"AWSV4", CLA_AUTH_AWSV4},
};

template <size_t N>
int LookUp(const NameValue (&table)[N], const char *name, int unknown) {
  if (name == nullptr) return unknown;
  for (const NameValue &nv : table)
    if (strcasecmp(nv.name, name) == 0) return nv.value;
  return unknown;
}

constexpr char kBadPorts[] = "incorrect ports specified.\n";
using objs_conf::kNoMemory;

// Stores a copy of text[0..len) as endpoint "host" or "host:port".
bool AddHostPort(CLA_PARAM_T *cfg, std::string_view text) {
  char *copy = strndup(text.data(), text.size());
  if (copy == nullptr) return false;
  cfg->host_ports[cfg->hosts_cnt++] = copy;
  return true;
}

// Reads a whole decimal port number; false if anything else is there.
bool ReadPort(std::string_view text, unsigned long *port) {
  if (text.empty() || text.size() > 9) return false;
  unsigned long v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    v = v * 10 + static_cast<unsigned long>(c - '0');
  }
  *port = v;
  return true;
}

// Expands one endpoint; returns 0, -1 with *msg set, or 1 when the
// endpoint table is full (the rest is dropped).
int AddEndpoint(CLA_PARAM_T *cfg, std::string_view ep, const char **msg) {
  size_t colon = ep.find(':');
  size_t dash = colon == std::string_view::npos ? colon : ep.find('-', colon);
  if (dash == std::string_view::npos) {
    if (cfg->hosts_cnt >= CLA_MAX_HOST_PORTS) return 1;
    if (!AddHostPort(cfg, ep)) return *msg = kNoMemory, -1;
    return 0;
  }
  unsigned long first = 0, last = 0;
  if (!ReadPort(ep.substr(colon + 1, dash - colon - 1), &first) ||
      !ReadPort(ep.substr(dash + 1), &last) || first > last || last - first > CLA_MAX_PORT_SPAN) {
    *msg = kBadPorts;
    return -1;
  }
  std::string_view host = ep.substr(0, colon);
  for (unsigned long port = first; port <= last; ++port) {
    if (cfg->hosts_cnt >= CLA_MAX_HOST_PORTS) return 1;
    char buf[32];
    int n = KxSnprintf(buf, sizeof buf, ":%lu", port);
    size_t len = host.size() + static_cast<size_t>(n);
    char *entry = static_cast<char *>(malloc(len + 1));
    if (entry == nullptr) return *msg = kNoMemory, -1;
    memcpy(entry, host.data(), host.size());
    memcpy(entry + host.size(), buf, static_cast<size_t>(n) + 1);
    cfg->host_ports[cfg->hosts_cnt++] = entry;
  }
  return 0;
}

}  // namespace

extern "C" int getProviderByName(const char *name) {
  return LookUp(s_providers, name, CLA_PROVIDER_NONE);
}

extern "C" int getAuthByName(const char *name) {
  return LookUp(s_auths, name, CLA_AUTH_UNKNOWN);
}

extern "C" void init_obj_store_cfg(CLA_PARAM_T *cfg) {
  memset(cfg, 0, sizeof *cfg);
  cfg->provider = CLA_PROVIDER_FENWYK;
  cfg->authentication = CLA_AUTH_NONE;
  cfg->server_auth = CLA_VERIFY_NONE;
  cfg->was_transfertimeout = 180;
  cfg->was_keepalive_idle = was_tune_keepalive_idle;
  cfg->was_keepalive_intvl = was_tune_keepalive_intvl;
}

extern "C" void was_config_param_destroy(CLA_PARAM_T *cfg) {
  if (cfg == nullptr) return;
  for (int i = 0; i < cfg->hosts_cnt; ++i) free(cfg->host_ports[i]);
  for (int i = 0; i < cfg->buckets_cnt; ++i) free(cfg->buckets[i]);
  for (char *s : {cfg->cloud_id, cfg->manager_host, cfg->manager_username, cfg->manager_password,
                  cfg->username, cfg->password, cfg->cacertfile, cfg->capath})
    free(s);
  free(cfg);
}

extern "C" void free_was_config_info(cla_was_config_info *info) {
  if (info == nullptr) return;
  for (int i = 0; i < info->config_count && i < CLA_MAX_CONFIGS; ++i) {
    was_config_param_destroy(info->config[i]);
    info->config[i] = nullptr;
  }
  info->config_count = 0;
}

extern "C" int verify_obj_store_cfg(const CLA_PARAM_T *cfg, const char **msg) {
  const char *unused = nullptr;
  if (msg == nullptr) msg = &unused;
  if (cfg == nullptr) {
    *msg = "Verification failed: Object Storage Provider.";
    return 1;
  }
  if (cfg->provider == CLA_PROVIDER_NONE)
    *msg = "Verification failed: Object Storage Provider.";
  else if (cfg->hosts_cnt == 0)
    *msg = "Verification failed: access hosts are not configured.";
  else if (cfg->buckets_cnt == 0)
    *msg = "Verification failed: namespaces are not configured.";
  else
    return 0;
  return 1;
}

extern "C" int parse_host_port_str(const char *text, CLA_PARAM_T *cfg, const char **msg) {
  std::string_view rest(text != nullptr ? text : "");
  bool dropped = false;
  for (;;) {
    size_t bar = rest.find('|');
    std::string_view ep = rest.substr(0, bar);
    rest = bar == std::string_view::npos ? std::string_view() : rest.substr(bar + 1);
    if (!ep.empty() && !dropped) {
      int rc = AddEndpoint(cfg, ep, msg);
      if (rc < 0) return -1;
      if (rc > 0) {
        // Keep the first 256 endpoints; later ones cannot be stored.
        __kxfs_logfn(KXLOG_WARNING, "Too many host-port pairs specified in OBJS config.\n");
        dropped = true;
      }
    }
    if (bar == std::string_view::npos) break;
  }
  return 0;
}

extern "C" int verify_was_policy_params(const char *objs_id, const char *objs_namespace,
                                        char *ErrMsg, size_t ErrMsgSz) {
  if (ErrMsg != nullptr && ErrMsgSz > 0) ErrMsg[0] = '\0';
  if (objs_id == nullptr) objs_id = "";
  if (objs_namespace == nullptr) objs_namespace = "";
  char path[256];
  KxSnprintf(path, sizeof path, "%s/%s", GetKxfsConfigDir(), OBJS_CONF_NAME);

  cla_was_config_info info;
  char *err = nullptr;
  if (parse_objs_config_file(path, &info, &err) != 0) {
    if (ErrMsg != nullptr && ErrMsgSz > 0)
      KxSnprintf(ErrMsg, ErrMsgSz, "%s", err != nullptr ? err : "");
    free(err);
    return -1;
  }
  const CLA_PARAM_T *found = nullptr;
  for (int i = 0; i < info.config_count && found == nullptr; ++i)
    if (strcasecmp(info.config[i]->cloud_id, objs_id) == 0) found = info.config[i];
  int rc = 0;
  if (found == nullptr) {
    if (ErrMsg != nullptr && ErrMsgSz > 0)
      KxSnprintf(ErrMsg, ErrMsgSz, "couldn't find objs_id %s in %s", objs_id, path);
    rc = -1;
  } else {
    // Exact and whole: a steering value passes only when objs.conf
    // lists its whole text as one namespace, just as the policy stores it.
    bool listed = false;
    for (int i = 0; i < found->buckets_cnt && !listed; ++i)
      listed = strcmp(found->buckets[i], objs_namespace) == 0;
    if (!listed) {
      if (ErrMsg != nullptr && ErrMsgSz > 0)
        KxSnprintf(ErrMsg, ErrMsgSz, "couldn't find namespace %s for objs_id %s in %s",
                   objs_namespace, objs_id, path);
      rc = -1;
    }
  }
  free_was_config_info(&info);
  return rc;
}

// ---- objs.conf ----

#define CLA_ROW(name, slot, lo, hi, help, type, field) \
  { name, slot, lo, hi, help, 0, type, static_cast<int>(offsetof(CLA_PARAM_T, field)) }

extern "C" const Option CloudOptions[] = {
    CLA_ROW("objs_id=%s", objs_conf::kObjsId, 0, 0, "Object Storage config Identifier",
            VDOPT_STR_DYNAMIC, cloud_id),
    CLA_ROW("provider=%s", objs_conf::kProvider, 0, 0, "Object Storage provider: Fenwyk",
            VDOPT_UINT32, provider),
    CLA_ROW("access_host_ports=%s", objs_conf::kAccessHostPorts, 0, 0,
            "pairs of access host name or IP address and port number", VDOPT_SUBSTRUCT, host_ports),
    CLA_ROW("manager_host=%s", objs_conf::kManagerHost, 0, 0,
            "IP addresses of Object Storage manager host", VDOPT_STR_DYNAMIC, manager_host),
    CLA_ROW("manager_port=%d", objs_conf::kManagerPort, 0, 0,
            "http or https port of the manager host", VDOPT_UINT32, manager_port),
    CLA_ROW("manager_https=%b", objs_conf::kManagerHttps, 0, 1,
            "whether to use https to access Object Storage management", VDOPT_BOOL, manager_https),
    CLA_ROW("manager_username=%s", objs_conf::kManagerUsername, 0, 0,
            "user name for manager interface", VDOPT_STR_DYNAMIC, manager_username),
    CLA_ROW("manager_password=%s", objs_conf::kManagerPassword, 0, 0,
            "password for the manager user", VDOPT_STR_DYNAMIC, manager_password),
    CLA_ROW("namespaces=%s", objs_conf::kNamespaces, 0, 0, "namespaces used in the config",
            VDOPT_SUBSTRUCT, buckets),
    CLA_ROW("authentication=%s", objs_conf::kAuthentication, 0, 0,
            "access host user authentication: Basic|Digest|PKI", VDOPT_UINT32, authentication),
    CLA_ROW("username=%s", objs_conf::kUsername, 0, 0, "user name in basic authentication",
            VDOPT_STR_DYNAMIC, username),
    CLA_ROW("password=%s", objs_conf::kPassword, 0, 0, "password for the given user name",
            VDOPT_STR_DYNAMIC, password),
    CLA_ROW("use_https=%b", objs_conf::kUseHttps, 0, 1,
            "whether to use https to access Object Storage", VDOPT_BOOL, use_https),
    CLA_ROW("use_zlib=%b", objs_conf::kUseZlib, 0, 1,
            "whether to enable zlib compression to access Object storage for https", VDOPT_BOOL,
            use_zlib),
    CLA_ROW("server_auth=%D", objs_conf::kServerAuth, 0, 2,
            "whether to authenticate access hosts, 0: no, 1: peerhost, 2 peeronly", VDOPT_UINT32,
            server_auth),
    CLA_ROW("cacertfile=%s", objs_conf::kCacertfile, 0, 0,
            "pathname of certificate chain file for server authentication", VDOPT_STR_DYNAMIC,
            cacertfile),
    CLA_ROW("capath=%s", objs_conf::kCapath, 0, 0, "directory path for storing certificate files",
            VDOPT_STR_DYNAMIC, capath),
    CLA_ROW("max_seg_size=%D", objs_conf::kMaxSegSize, 1048576, 281474976710656ULL,
            "max segmentation size for an object", VDOPT_UINT64, max_seg_size),
    CLA_ROW("objs_transfertimeout=%D", objs_conf::kTransferTimeout, 0, 1800,
            "value for timeout in libcurl data transfer", VDOPT_UINT32, was_transfertimeout),
    CLA_ROW("s3_virtual_hosting=%b", objs_conf::kS3VirtualHosting, 0, 1,
            "whether to use virtual hosting for buckets in Amazon S3 request", VDOPT_BOOL,
            s3_virtual_hosting),
    CLA_ROW("s3_ss_encryption=%b", objs_conf::kS3SsEncryption, 0, 1,
            "whether to use server side encryption in Amazon S3 request", VDOPT_BOOL,
            s3_ss_encryption),
    {nullptr, 0, 0, 0, nullptr, 0, VDOPT_INVALID, 0},
};
#undef CLA_ROW

extern "C" int parse_objs_config_file(const char *path, cla_was_config_info *info, char **err) {
  if (info == nullptr || err == nullptr) {
    errno = EINVAL;
    return -1;
  }
  memset(info, 0, sizeof *info);
  *err = nullptr;
  if (path == nullptr) path = "";
  struct stat st;
  std::string text, why;
  if (stat(path, &st) != 0) {
    if (errno == ENOENT || errno == ENOTDIR) return 0;
    why = "Cannot open OBJS config file";
  } else if (S_ISFIFO(st.st_mode) || S_ISSOCK(st.st_mode) || S_ISCHR(st.st_mode) ||
             S_ISBLK(st.st_mode)) {
    why = "Cannot open OBJS config file";  // opening a FIFO would wait for a writer
  }
  if (!why.empty() || !objs_conf::ReadWhole(path, st.st_size, &text, &why)) {
    *err = objs_conf::FailureText(path, -1, why);
    return -1;
  }
  objs_conf::ObjsConfReader reader(info);
  long line_no = 0;
  bool ok = true;
  for (size_t start = 0; ok && start < text.size(); ++line_no) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    ok = reader.ReadLine(line.c_str());
    start = end + 1;
  }
  if (ok) ok = reader.Close();
  if (ok) return 0;
  *err = objs_conf::FailureText(path, line_no, reader.reason());
  reader.Discard();
  free_was_config_info(info);
  return -1;
}
