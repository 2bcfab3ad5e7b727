// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/systeminfo.h"

#include <cstdio>

#include <sys/utsname.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: systeminfo.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

int sysinfo(int command, char* buf, long count)
{
    struct utsname host;
    if (uname(&host) != 0)
        return -1;
    const char* const texts[] = {host.sysname, host.nodename, host.release, host.version, host.machine, host.machine};
    if (command < SI_SYSNAME || command > SI_ARCHITECTURE)
        return FailWith(EINVAL);
    return snprintf(buf, count > 0 ? static_cast<size_t>(count) : 0, "%s", texts[command - SI_SYSNAME]) + 1;
}

} // namespace svr4
