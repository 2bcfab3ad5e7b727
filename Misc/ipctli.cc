#include "Misc/ipctli.h"

#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static bool IsDottedAddress(const char* text, struct in_addr* address)
{
    return strchr(text, '.') != nullptr && inet_aton(text, address) != 0;
}

char* IPCTli::TcptoName(const char* tcpIpAddress)
{
    if (tcpIpAddress == nullptr)
        return nullptr;
    struct in_addr address;
    const struct hostent* host = IsDottedAddress(tcpIpAddress, &address)
                                     ? gethostbyaddr(&address, sizeof address, AF_INET)
                                     : gethostbyname(tcpIpAddress);
    return host != nullptr ? host->h_name : nullptr;
}
