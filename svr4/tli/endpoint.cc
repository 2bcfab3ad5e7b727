#include "svr4/tli/endpoint.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <new>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "svr4/errno.h"
#include "svr4/tli/error.h"

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

bool Endpoint::Replace(int source)
{
    int result;
    do
        result = dup3(source, socket.fd, O_CLOEXEC);
    while (result < 0 && (errno == EINTR || errno == EBUSY));
    const SavedErrno savedErrno;
    close(source);
    if (result < 0)
        return false;
    socket = Socket(result);
    return true;
}

bool Endpoint::Renew()
{
    const int fresh = NewSocket(provider);
    if (fresh < 0 || !Replace(fresh))
        return false;
    isSpent = false;
    return true;
}

bool Endpoint::RenewBound()
{
    if (!Renew())
        return false;
    if (bound.length == 0)
        return true;
    ReuseAddress(socket.fd);
    isSpent = bind(socket.fd, bound.Generic(), bound.length) < 0; // to be tried again then
    return !isSpent;
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

void Endpoint::Add(Request* request)
{
    static int lastSequence = 0;
    request->sequence = lastSequence = lastSequence < INT_MAX ? lastSequence + 1 : 1;
    Request** end = &requests;
    while (*end != nullptr)
        end = &(*end)->next;
    *end = request;
    outstanding++;
    state = T_INCON;
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
    Request** first = nullptr;
    for (Request** place = &requests; *place != nullptr; place = &(*place)->next)
        if ((*place)->HasGone() && first == nullptr)
            first = place;
    return first;
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

Endpoint* Enter(int fd, const Provider& provider, bool waits)
{
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
    return endpoints[fd] = new (std::nothrow) Endpoint{Socket(fd), provider, waits};
}

void Drop(int fd)
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
