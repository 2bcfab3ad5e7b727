#include "svr4/systeminfo.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <sys/utsname.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: systeminfo.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

static const char* Text(const struct utsname& host, int command)
{
    switch (command) {
    case SI_SYSNAME: return host.sysname;
    case SI_HOSTNAME: return host.nodename;
    case SI_RELEASE: return host.release;
    case SI_VERSION: return host.version;
    case SI_MACHINE:
    case SI_ARCHITECTURE: return host.machine;
    default: return nullptr;
    }
}

int sysinfo(int command, char* buf, long count)
{
    struct utsname host;
    if (uname(&host) != 0)
        return -1;
    const char* text = Text(host, command);
    if (text == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (count > 0)
        snprintf(buf, static_cast<size_t>(count), "%s", text);
    return static_cast<int>(strlen(text)) + 1;
}

} // namespace svr4
