// SPDX-License-Identifier: BSD-2-Clause
// The calls that take the place of the host's or stand beside them, under the names that the headers here give them.
#include <csignal>
#include <ctime>

#include <libgen.h>
#include <sys/systeminfo.h>
#include <unistd.h>

#include "compat/types.h"
#include "svr4/gmatch.h"
#include "svr4/process.h"
#include "svr4/signal.h"
#include "svr4/strftime.h"
#include "svr4/systeminfo.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: host.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

SAME_VALUE(SI_SYSNAME);
SAME_VALUE(SI_HOSTNAME);
SAME_VALUE(SI_RELEASE);
SAME_VALUE(SI_VERSION);
SAME_VALUE(SI_MACHINE);
SAME_VALUE(SI_ARCHITECTURE);

int gmatch(const char* str, const char* pattern) { return svr4::gmatch(str, pattern); }

int sysinfo(int command, char* buf, long count) { return svr4::sysinfo(command, buf, count); }

zeloo_svr4_handler signal(int sig, zeloo_svr4_handler handler) noexcept { return svr4::signal(sig, handler); }

int setpgrp() noexcept { return svr4::setpgrp(); }

size_t strftime(char* s, size_t maxsize, const char* format, const struct tm* tp) noexcept
{
    return svr4::strftime(s, maxsize, format, tp);
}
