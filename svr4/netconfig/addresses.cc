// SPDX-License-Identifier: BSD-2-Clause
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "svr4/netconfig/transports.h"
#include "svr4/tli.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: netconfig.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace netdir;

namespace {

// An address of either family; its port is at the same place in both.
union Address {
    struct sockaddr_in6 in6;
    struct sockaddr_in in;
    struct sockaddr any;
};

socklen_t LengthOf(int family) { return family == AF_INET6 ? sizeof(struct sockaddr_in6) : sizeof(struct sockaddr_in); }

// Takes an address of `family`: its length, or 0 when `from` is none.
socklen_t GetAddress(int family, const struct netbuf* from, Address* address)
{
    const socklen_t length = LengthOf(family);
    if (family == AF_UNSPEC || from == nullptr || from->buf == nullptr || from->len < length)
        return 0;
    memcpy(address, from->buf, length);
    return address->any.sa_family == family ? length : 0;
}

void* HostOf(Address& address)
{
    return address.any.sa_family == AF_INET6 ? static_cast<void*>(&address.in6.sin6_addr) : &address.in.sin_addr;
}

} // namespace

int netdir_getbyaddr(const struct netconfig* config, struct nd_hostservlist** service, const struct netbuf* addr)
{
    if (service == nullptr)
        return Fail(ND_BADARG);
    *service = nullptr;
    Address address = {};
    const socklen_t length = GetAddress(Family(config), addr, &address);
    if (length == 0)
        return Fail(ND_BADARG);
    struct Result {
        struct nd_hostservlist list;
        struct nd_hostserv pair;
        char host[NI_MAXHOST];
        char serv[NI_MAXSERV];
    };
    Result* result = static_cast<Result*>(calloc(1, sizeof *result));
    if (result == nullptr)
        return Fail(ND_NOMEM);
    const int error =
        getnameinfo(&address.any, length, result->host, sizeof result->host, result->serv, sizeof result->serv, 0);
    if (error != 0) {
        free(result);
        return ResolverFailure(error);
    }
    result->pair = {result->host, result->serv};
    result->list = {1, &result->pair};
    *service = &result->list;
    return ND_OK;
}

// Each result is one block.
void netdir_free(void* ptr, int struct_type)
{
    if (struct_type == ND_ADDRLIST || struct_type == ND_HOSTSERVLIST || struct_type == ND_ADDR)
        free(ptr);
}

const char* netdir_sperror()
{
    switch (_nderror) {
    case ND_OK: return "no error";
    case ND_BADARG: return "bad argument";
    case ND_NOMEM: return "out of memory";
    case ND_NOHOST: return "host not found";
    case ND_NOSERV: return "service not found";
    case ND_SYSTEM: return "the name service failed";
    default: return "unknown error";
    }
}

char* taddr2uaddr(const struct netconfig* config, const struct netbuf* addr)
{
    Address address = {};
    if (GetAddress(Family(config), addr, &address) == 0) {
        Fail(ND_BADARG);
        return nullptr;
    }
    char host[INET6_ADDRSTRLEN];
    inet_ntop(address.any.sa_family, HostOf(address), host, sizeof host);
    const unsigned port = ntohs(address.in6.sin6_port);
    char* text;
    if (asprintf(&text, "%s.%u.%u", host, port >> 8, port & 255) < 0) {
        Fail(ND_NOMEM);
        return nullptr;
    }
    return text;
}

// Takes the last byte, behind a dot, off the text. -1 when there is none.
static int CutByte(char* text)
{
    char* dot = strrchr(text, '.');
    if (dot == nullptr || !IsNumber(dot + 1, 0, 255))
        return -1;
    *dot = '\0';
    return static_cast<int>(strtoul(dot + 1, nullptr, 10));
}

struct netbuf* uaddr2taddr(const struct netconfig* config, const char* uaddr)
{
    const int family = Family(config);
    char host[INET6_ADDRSTRLEN + sizeof ".255.255"] = "";
    Address address = {};
    bool isWhole = family != AF_UNSPEC && uaddr != nullptr && strlen(uaddr) < sizeof host;
    if (isWhole) {
        const int low = CutByte(strcpy(host, uaddr));
        const int high = CutByte(host);
        address.any.sa_family = static_cast<sa_family_t>(family);
        isWhole = low >= 0 && high >= 0 && inet_pton(family, host, HostOf(address)) == 1;
        if (isWhole)
            address.in6.sin6_port = htons(static_cast<in_port_t>(high * 256 + low));
    }
    if (!isWhole) {
        Fail(ND_BADARG);
        return nullptr;
    }
    const socklen_t length = LengthOf(family);
    struct netbuf* block = static_cast<struct netbuf*>(malloc(sizeof *block + length));
    if (block == nullptr) {
        Fail(ND_NOMEM);
        return nullptr;
    }
    *block = {length, length, reinterpret_cast<char*>(block + 1)};
    memcpy(block->buf, &address, length);
    return block;
}

} // namespace svr4
