// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/netconfig.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "svr4/errno.h"
#include "svr4/netconfig/transports.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: netconfig.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace netdir;

namespace {

constexpr struct netconfig Transports[] = {
    {"tcp", NC_TPI_COTS_ORD, NC_VISIBLE, "inet", "tcp", "/dev/tcp"},
    {"tcp6", NC_TPI_COTS_ORD, NC_NOFLAG, "inet6", "tcp", "/dev/tcp6"},
};
constexpr char VisibleTransports[] = "tcp"; // those with NC_VISIBLE: the path without NETPATH

const struct netconfig* FindTransport(const char* netid)
{
    for (const struct netconfig& transport : Transports)
        if (strcmp(netid, transport.nc_netid) == 0)
            return &transport;
    return nullptr;
}

// Whether `service` is left to the host: a name, or a port number in range. The host takes signs, blanks and any
// number, and cuts it to 16 bits.
bool IsService(const char* service)
{
    char* end;
    strtoul(service, &end, 10);
    return *end != '\0' || IsNumber(service, 1, 65535);
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

int netdir::Fail(int code)
{
    _nderror = code;
    return code;
}

int netdir::Family(const struct netconfig* config)
{
    const struct netconfig* known =
        config != nullptr && config->nc_netid != nullptr ? FindTransport(config->nc_netid) : nullptr;
    if (known == nullptr)
        return AF_UNSPEC;
    return strcmp(known->nc_protofmly, "inet6") == 0 ? AF_INET6 : AF_INET;
}

int netdir::ResolverFailure(int error)
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

bool netdir::IsNumber(const char* text, unsigned long least, unsigned long most)
{
    const size_t digits = strspn(text, "0123456789");
    const unsigned long number = strtoul(text, nullptr, 10);
    return digits > 0 && text[digits] == '\0' && number >= least && number <= most;
}

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

// The handle of a walk through all transports is what is left of them.
void* setnetconfig()
{
    auto rest = static_cast<const struct netconfig**>(malloc(sizeof(const struct netconfig*)));
    if (rest != nullptr)
        *rest = std::begin(Transports);
    return rest;
}

const struct netconfig* getnetconfig(void* handlep)
{
    const auto rest = static_cast<const struct netconfig**>(handlep);
    return rest == nullptr || *rest == std::end(Transports) ? nullptr : (*rest)++;
}

int endnetconfig(void* handlep) { return endnetpath(handlep); }

const struct netconfig* getnetconfigent(const char* netid) { return netid == nullptr ? nullptr : FindTransport(netid); }

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

} // namespace svr4
