#include "Misc/detail/hostname.h"

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: hostname.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// A name without a dot is none, though inet_aton would take "10" for one: a host may be called so.
static bool IsDottedAddress(const char* text, struct in_addr* address)
{
    return std::strchr(text, '.') != nullptr && inet_aton(text, address) != 0;
}

char* zeloo::OfficialHostName(const char* host)
{
    if (host == nullptr)
        return nullptr;
    struct in_addr address;
    const struct hostent* entry =
        IsDottedAddress(host, &address) ? gethostbyaddr(&address, sizeof address, AF_INET) : gethostbyname(host);
    return entry != nullptr ? entry->h_name : nullptr;
}
