// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/tli/endpoint.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4::tli {

static Endpoint** endpoints = nullptr; // by descriptor
static int endpointCount = 0;

bool Request::HasGone()
{
    if (reason == 0)
        reason = socket.IsOurs() ? TakeError(socket.fd) : ECONNABORTED;
    return reason != 0;
}

bool Endpoint::Replace(const Socket& source)
{
    const int result = dup3(source.fd, socket.fd, O_CLOEXEC); // not tried again: a host that refuses may go on so
    const SavedErrno savedErrno;
    close(source.fd);
    if (result < 0)
        return false;
    socket = source.As(result);
    return true;
}

bool Endpoint::Renew()
{
    const Socket fresh = NewSocket(provider);
    if (fresh.IsNone() || !Replace(fresh))
        return false;
    isSpent = false;
    return true;
}

bool Endpoint::IsDisconnected()
{
    if (reason == 0)
        reason = TakeError(socket.fd);
    return reason != 0;
}

int Endpoint::FailConnection(int error)
{
    if (!MeansDisconnect(error))
        return FailSystem(error);
    if (reason == 0)
        reason = error;
    return Fail(TLOOK);
}

int Endpoint::Await(short events, int code) const
{
    if (!waits)
        return Fail(code);
    struct pollfd descriptor = {socket.fd, events, 0};
    return poll(&descriptor, 1, -1) < 0 ? Fail(TSYSERR) : 0;
}

int Endpoint::Add(Request* request)
{
    static int lastSequence = 0;
    request->sequence = lastSequence = lastSequence < INT_MAX ? lastSequence + 1 : 1;
    Request** end = &requests;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = request;
    outstanding++;
    state = T_INCON;
    return lastSequence;
}

Request** Endpoint::FindRequest(int sequence)
{
    for (Request** place = &requests; *place != nullptr; place = &(*place)->next)
        if ((*place)->sequence == sequence)
            return place;
    return nullptr;
}

Request** Endpoint::FindGone()
{
    for (Request** place = &requests; *place != nullptr; place = &(*place)->next)
        if ((*place)->HasGone())
            return place;
    return nullptr;
}

Request Endpoint::Take(Request** place)
{
    const Request request = **place;
    delete *place;
    *place = request.next;
    if (--outstanding == 0)
        state = T_IDLE;
    return request;
}

// Forgets an endpoint and closes its requests; its descriptor stays as it is. REQUIRES: `fd` is in the table.
static void Drop(int fd)
{
    Endpoint* endpoint = endpoints[fd];
    endpoints[fd] = nullptr;
    while (endpoint->requests != nullptr)
        endpoint->Take(&endpoint->requests).socket.Close();
    delete endpoint;
}

Endpoint* Find(int fd)
{
    if (fd < 0 || fd >= endpointCount || endpoints[fd] == nullptr)
        return Fail(TBADF);
    if (endpoints[fd]->socket.IsOurs())
        return endpoints[fd];
    Drop(fd);
    return Fail(TBADF);
}

Endpoint* FindIn(int fd, unsigned states)
{
    Endpoint* endpoint = Find(fd);
    return endpoint == nullptr || (In(endpoint->state) & states) != 0 ? endpoint : Fail(TOUTSTATE);
}

} // namespace svr4::tli

namespace svr4 {

using namespace tli;

// Makes a new socket an endpoint. Null when memory fails.
static Endpoint* Enter(const Socket& socket, const Provider& provider, bool waits)
{
    const int fd = socket.fd;
    if (fd >= endpointCount) {
        const int count = std::max(fd + 1, endpointCount < INT_MAX / 2 ? 2 * endpointCount : INT_MAX);
        void* larger = realloc(endpoints, static_cast<size_t>(count) * sizeof *endpoints);
        if (larger == nullptr)
            return nullptr;
        endpoints = static_cast<Endpoint**>(larger);
        std::fill(endpoints + endpointCount, endpoints + count, nullptr);
        endpointCount = count;
    }
    if (endpoints[fd] != nullptr)
        Drop(fd); // closed behind our back
    return endpoints[fd] = new (std::nothrow) Endpoint{socket, provider, waits};
}

constexpr Provider Providers[] = {
    {"/dev/tcp", AF_INET, sizeof(struct sockaddr_in)},
    {"/dev/tcp6", AF_INET6, sizeof(struct sockaddr_in6)},
};

static void PutInfo(const Provider& provider, struct t_info* info)
{
    if (info != nullptr)
        *info = {static_cast<long>(provider.addressLength), -2, 0, -2, -2, -2, T_COTS_ORD};
}

int t_open(const char* path, int oflag, struct t_info* info)
{
    const Provider* provider = nullptr;
    for (const Provider& known : Providers)
        if (path != nullptr && strcmp(path, known.device) == 0)
            provider = &known;
    if (provider == nullptr)
        return Fail(TBADNAME);
    if ((oflag & ~O_NONBLOCK) != O_RDWR)
        return Fail(TBADFLAG);
    const Socket socket = NewSocket(*provider);
    if (socket.IsNone())
        return Fail(TSYSERR);
    if (Enter(socket, *provider, (oflag & O_NONBLOCK) == 0) == nullptr) {
        close(socket.fd);
        return FailSystem(ENOMEM);
    }
    PutInfo(*provider, info);
    return socket.fd;
}

int t_getinfo(int fd, struct t_info* info)
{
    const Endpoint* endpoint = Find(fd);
    if (endpoint == nullptr)
        return -1;
    PutInfo(endpoint->provider, info);
    return 0;
}

// Binds the endpoint's socket, listening with a `qlen` above 0, and notes the address it got. The backlog is no matter
// of `qlen`: a client that the host turns away tries again after a second only.
static int Bind(Endpoint* endpoint, const Address& address, unsigned qlen)
{
    const int fd = endpoint->socket.fd;
    if (qlen > 0)
        ReuseAddress(fd);
    Address* bound = &endpoint->bound;
    if (bind(fd, address.Generic(), address.length) == 0 && (qlen == 0 || listen(fd, SOMAXCONN) == 0) &&
        getsockname(fd, bound->Generic(), bound->Room()) == 0)
        return 0;
    const int error = errno;
    bound->length = 0;
    endpoint->Renew(); // the socket may be half done
    // The port is at the same place in both families.
    const bool anyPort = reinterpret_cast<const struct sockaddr_in*>(address.Generic())->sin_port == 0;
    if (error == EADDRNOTAVAIL || (error == EADDRINUSE && anyPort))
        return Fail(TNOADDR);
    return FailAddress(error);
}

int t_bind(int fd, const struct t_bind* req, struct t_bind* ret)
{
    Endpoint* endpoint = FindIn(fd, In(T_UNBND));
    if (endpoint == nullptr)
        return -1;
    Address address;
    address.storage.ss_family = static_cast<sa_family_t>(endpoint->provider.family);
    address.length = endpoint->provider.addressLength;
    const bool any = req == nullptr || req->addr.len == 0;
    if (!any && GetAddress(endpoint->provider, req->addr, &address) < 0)
        return -1;
    const unsigned qlen = req == nullptr ? 0 : std::min<unsigned>(req->qlen, SOMAXCONN);
    // Who neither gives an address nor asks for it gets one with the connection: that takes no port of its own.
    const bool later = any && qlen == 0 && (ret == nullptr || ret->addr.maxlen == 0);
    if (!later && Bind(endpoint, address, qlen) < 0)
        return -1;
    endpoint->qlen = qlen;
    endpoint->state = T_IDLE;
    if (ret == nullptr)
        return 0;
    ret->qlen = qlen;
    return PutAddress(endpoint->bound, &ret->addr);
}

int t_unbind(int fd)
{
    Endpoint* endpoint = FindIn(fd, In(T_IDLE));
    if (endpoint == nullptr)
        return -1;
    if (!endpoint->Renew())
        return Fail(TSYSERR);
    endpoint->bound.length = 0;
    endpoint->qlen = 0;
    endpoint->state = T_UNBND;
    return 0;
}

int t_close(int fd)
{
    if (Find(fd) == nullptr)
        return -1;
    Drop(fd);
    close(fd); // whatever it returns, the descriptor is gone
    return 0;
}

} // namespace svr4
