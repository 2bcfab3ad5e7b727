#include "svr4/gmatch.h"

#include <fnmatch.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: gmatch.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

int gmatch(const char* str, const char* pattern) { return fnmatch(pattern, str, 0) == 0; }

} // namespace svr4
