// Reading one objs.conf; internal to the policy library (C++ only, not
// installed) and used by parse_objs_config_file (vd_was_lib.cpp).
//
// An ObjsConfReader takes the file's lines in order: each objs_id opens a
// configuration, every other keyword applies to the one opened last, and a
// configuration is verified and appended to the caller's list when the next
// one opens or the file ends (Close). One reader per file and thread.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "vdpolicy/lib/check/vd_was_lib.h"

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

class ObjsConfReader {
 public:
  // Verified configurations are appended to list, which the caller owns
  // and which owns them once appended.
  explicit ObjsConfReader(cla_was_config_info *list) : info_(list) {}

  // Applies every option of one NUL-terminated line. False, with reason()
  // set, at the first option that fails.
  bool ReadLine(const char *line);
  // Verifies the configuration opened last and appends it to the list;
  // true when none is open. False with reason() set.
  bool Close();
  // Frees the configuration opened last without appending it.
  void Discard() { cur_.reset(); }
  const std::string &reason() const { return reason_; }

 private:
  bool Fail(std::string_view text);
  bool Open(const char *id);
  bool Apply(int slot, uint64_t number, const char *str);
  bool ApplyString(int slot, const char *str);

  cla_was_config_info *info_;
  CfgPtr cur_;
  bool server_auth_given_ = false;
  bool hosts_given_ = false;
  std::string reason_;
};

// The message of a failed parse, malloc'd for the caller (null when out of
// memory). A negative line means the file itself could not be read.
char *FailureText(const char *path, long line, const std::string &why);

// Reads the whole file, of the size stat gave, into text (less when it has
// shrunk since). False with the reason in why.
bool ReadWhole(const char *path, off_t size, std::string *text, std::string *why);

}  // namespace objs_conf
