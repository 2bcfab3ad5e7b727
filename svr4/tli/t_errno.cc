// SPDX-License-Identifier: BSD-2-Clause
// Nothing else stands here: the linker takes a program's own definition in place of this file.
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

int t_errno = 0;

} // namespace svr4
