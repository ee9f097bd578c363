#include "kxsim/preload/request_log.h"

#include <cerrno>
#include <cstring>
#include <string_view>

#include "kxsim/core/hex.h"
#include "kxsim/core/sysio.h"

namespace kxsim {

namespace {
struct ErrnoName {
  int value;
  std::string_view name;
};

constexpr ErrnoName kErrnoNames[] = {
    {EPERM, "EPERM"},
    {ENOENT, "ENOENT"},
    {ESRCH, "ESRCH"},
    {EINTR, "EINTR"},
    {EIO, "EIO"},
    {ENXIO, "ENXIO"},
    {E2BIG, "E2BIG"},
    {EBADF, "EBADF"},
    {EAGAIN, "EAGAIN"},
    {ENOMEM, "ENOMEM"},
    {EACCES, "EACCES"},
    {EFAULT, "EFAULT"},
    {EBUSY, "EBUSY"},
    {EEXIST, "EEXIST"},
    {EXDEV, "EXDEV"},
    {ENODEV, "ENODEV"},
    {ENOTDIR, "ENOTDIR"},
    {EISDIR, "EISDIR"},
    {EINVAL, "EINVAL"},
    {ENFILE, "ENFILE"},
    {EMFILE, "EMFILE"},
    {ENOTTY, "ENOTTY"},
    {EFBIG, "EFBIG"},
    {ENOSPC, "ENOSPC"},
    {EROFS, "EROFS"},
    {EMLINK, "EMLINK"},
    {ERANGE, "ERANGE"},
    {ENAMETOOLONG, "ENAMETOOLONG"},
    {ENOSYS, "ENOSYS"},
    {ENOTEMPTY, "ENOTEMPTY"},
    {ELOOP, "ELOOP"},
    {ENODATA, "ENODATA"},
    {ESTALE, "ESTALE"},
    {EOPNOTSUPP, "EOPNOTSUPP"},
    {ETIMEDOUT, "ETIMEDOUT"},
    {EDQUOT, "EDQUOT"},
};
}  // namespace

const char *kind_name(Kind k) {
  switch (k) {
    case Kind::kDmig:
      return "dmig";
    case Kind::kIoctl:
      return "ioctl";
    case Kind::kOpen:
      return "open";
    case Kind::kUnlink:
      return "unlink";
    case Kind::kDevice:
      return "device";
    case Kind::kStale:
      return "stale";
  }
  return "?";
}

std::string errno_name(int err) {
  for (const auto &e : kErrnoNames) {
    if (e.value == err) return std::string(e.name);
  }
  return std::to_string(err);
}

int errno_from_name(const std::string &text) {
  for (const auto &e : kErrnoNames) {
    if (e.name == text) return e.value;
  }
  auto n = parse_number(text);
  if (n && *n > 0 && *n < 4096) return static_cast<int>(*n);
  return -1;
}

std::string escape_field(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case ' ':
        out += "\\040";
        break;
      case '\t':
        out += "\\011";
        break;
      case '\n':
        out += "\\012";
        break;
      case '\\':
        out += "\\134";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string format_log_line(const RequestInfo &info, int result, int err) {
  std::string line = kind_name(info.kind);
  line += " " + hex_number(info.code) + " " + escape_field(info.object);
  if (!info.name.empty()) line += " name=" + escape_field(info.name);
  line += info.fields;
  line += " result=" + std::to_string(result);
  if (err != 0) line += " errno=" + errno_name(err);
  line += '\n';
  return line;
}

void write_request_log(const std::string &path, const RequestInfo &info, int result, int err) {
  if (path.empty()) return;
  int saved = errno;
  sys::append_file(path, format_log_line(info, result, err));
  errno = saved;
}

}  // namespace kxsim
