// The optional request log named by KXSIM_LOG: one line per request,
// appended with a single write so that lines of several processes never mix:
//   <kind> 0x<code> <object> [key=value ...] result=0
//   <kind> 0x<code> <object> [key=value ...] result=-1 errno=<NAME>
// Blanks, tabs, newlines and backslashes inside the object are written as
// octal escapes (\040, \011, \012, \134), as in the mount table.
#pragma once

#include <string>

#include "kxsim/preload/request.h"

namespace kxsim {

std::string format_log_line(const RequestInfo &info, int result, int err);
// Appends the line to the log at `path` (KXSIM_LOG) unless that is empty;
// failures to log are ignored.
void write_request_log(const std::string &path, const RequestInfo &info, int result, int err);
// Escapes like the mount table does.
std::string escape_field(const std::string &text);

}  // namespace kxsim
