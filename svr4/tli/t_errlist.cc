// SPDX-License-Identifier: BSD-2-Clause
// The texts as programs know them: not constant. t_strerror has its own, which no program can change.
#include "svr4/tli.h"
#include "svr4/tli/texts.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

#define SVR4_TLI_TEXT(text) const_cast<char*>(text),
char* t_errlist[] = {SVR4_TLI_TEXTS(SVR4_TLI_TEXT)};
int t_nerr = TPROTO + 1;

} // namespace svr4
