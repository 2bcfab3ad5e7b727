// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/netconfig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "svr4/errno.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: netconfig.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

namespace {

constexpr struct netconfig Transports[] = {
    {"tcp", NC_TPI_COTS_ORD, NC_VISIBLE, "inet", "tcp", "/dev/tcp"},
    {"tcp6", NC_TPI_COTS_ORD, NC_NOFLAG, "inet6", "tcp", "/dev/tcp6"},
};
constexpr char VisibleTransports[] = "tcp"; // those with NC_VISIBLE: the path without NETPATH

int Fail(int code)
{
    _nderror = code;
    return code;
}

const struct netconfig* FindTransport(const char* netid)
{
    for (const struct netconfig& transport : Transports)
        if (strcmp(netid, transport.nc_netid) == 0)
            return &transport;
    return nullptr;
}

// The address family of a transport, or AF_UNSPEC when it is none of this host.
int Family(const struct netconfig* config)
{
    const struct netconfig* known =
        config != nullptr && config->nc_netid != nullptr ? FindTransport(config->nc_netid) : nullptr;
    if (known == nullptr)
        return AF_UNSPEC;
    return strcmp(known->nc_protofmly, "inet6") == 0 ? AF_INET6 : AF_INET;
}

// Whether `service` is left to the host: a name, or a port number in range. The host takes signs, blanks and any
// number, and cuts it to 16 bits.
bool IsService(const char* service)
{
    char* end;
    const unsigned long port = strtoul(service, &end, 10);
    if (*end != '\0')
        return true;
    return strspn(service, "0123456789") == strlen(service) && port >= 1 && port <= 65535;
}

int ResolverFailure(int error)
{
    switch (error) {
    case EAI_SERVICE: return Fail(ND_NOSERV);
    case EAI_MEMORY: return Fail(ND_NOMEM);
    case EAI_SYSTEM:
    case EAI_AGAIN:
    case EAI_FAIL: return Fail(ND_SYSTEM);
    default: return Fail(ND_NOHOST);
    }
}

bool Contains(const struct nd_addrlist& list, const struct addrinfo& found)
{
    for (int i = 0; i < list.n_cnt; i++) {
        const struct netbuf& address = list.n_addrs[i];
        if (address.len == found.ai_addrlen && memcmp(address.buf, found.ai_addr, address.len) == 0)
            return true;
    }
    return false;
}

// A list of the addresses `found`, once each, in one block; null when memory fails.
struct nd_addrlist* MakeList(const struct addrinfo* found)
{
    size_t count = 0;
    for (const struct addrinfo* next = found; next != nullptr; next = next->ai_next)
        count++;
    constexpr size_t SizeOfAddress = sizeof(struct netbuf) + sizeof(struct sockaddr_storage);
    struct nd_addrlist* list = static_cast<struct nd_addrlist*>(calloc(1, sizeof *list + count * SizeOfAddress));
    if (list == nullptr)
        return nullptr;
    list->n_addrs = reinterpret_cast<struct netbuf*>(list + 1);
    char* room = reinterpret_cast<char*>(list->n_addrs + count);
    for (; found != nullptr; found = found->ai_next) {
        if (Contains(*list, *found))
            continue;
        memcpy(room, found->ai_addr, found->ai_addrlen);
        list->n_addrs[list->n_cnt++] = {found->ai_addrlen, found->ai_addrlen, room};
        room += sizeof(struct sockaddr_storage);
    }
    return list;
}

} // namespace

// The handle of a path is what is left of its text, or null at its end; behind that stands the text.
void* setnetpath()
{
    const char* names = getenv("NETPATH");
    if (names == nullptr)
        names = VisibleTransports;
    char** rest = static_cast<char**>(calloc(1, sizeof *rest + strlen(names) + 1));
    if (rest != nullptr)
        *rest = strcpy(reinterpret_cast<char*>(rest + 1), names);
    return rest;
}

const struct netconfig* getnetpath(void* handlep)
{
    if (handlep == nullptr)
        return nullptr;
    while (const char* netid = strsep(static_cast<char**>(handlep), ":"))
        if (const struct netconfig* transport = FindTransport(netid))
            return transport;
    return nullptr;
}

int endnetpath(void* handlep)
{
    if (handlep == nullptr)
        return FailWith(EINVAL);
    free(handlep);
    return 0;
}

int netdir_getbyname(const struct netconfig* config, const struct nd_hostserv* service, struct nd_addrlist** addrs)
{
    if (addrs == nullptr)
        return Fail(ND_BADARG);
    *addrs = nullptr;
    const int family = Family(config);
    if (family == AF_UNSPEC || service == nullptr || service->h_host == nullptr || service->h_serv == nullptr)
        return Fail(ND_BADARG);
    if (!IsService(service->h_serv))
        return Fail(ND_NOSERV);
    struct addrinfo hints = {};
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_PASSIVE; // no host: the wildcard address
    const bool isSelf = strcmp(service->h_host, HOST_SELF) == 0;
    struct addrinfo* found = nullptr;
    const int error = getaddrinfo(isSelf ? nullptr : service->h_host, service->h_serv, &hints, &found);
    if (error != 0)
        return ResolverFailure(error);
    *addrs = MakeList(found);
    freeaddrinfo(found);
    return *addrs == nullptr ? Fail(ND_NOMEM) : ND_OK;
}

void netdir_free(void* ptr, int struct_type)
{
    if (struct_type == ND_ADDRLIST)
        free(ptr);
}

char* taddr2uaddr(const struct netconfig* config, const struct netbuf* addr)
{
    const int family = Family(config);
    struct sockaddr_in6 address = {}; // the larger of the two; family and port are at the same place in both
    const size_t length = family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in);
    const bool isWhole = family != AF_UNSPEC && addr != nullptr && addr->buf != nullptr && addr->len >= length;
    if (isWhole)
        memcpy(&address, addr->buf, length);
    if (!isWhole || address.sin6_family != family) {
        Fail(ND_BADARG);
        return nullptr;
    }
    char host[INET6_ADDRSTRLEN];
    const void* bytes = family == AF_INET6 ? static_cast<const void*>(&address.sin6_addr)
                                           : &reinterpret_cast<const struct sockaddr_in*>(&address)->sin_addr;
    inet_ntop(family, bytes, host, sizeof host);
    const unsigned port = ntohs(address.sin6_port);
    char* text;
    if (asprintf(&text, "%s.%u.%u", host, port >> 8, port & 255) < 0) {
        Fail(ND_NOMEM);
        return nullptr;
    }
    return text;
}

} // namespace svr4
