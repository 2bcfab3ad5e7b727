#include "svr4/tli.h"

#include <cerrno>
#include <cstring>

#include <poll.h>

#include "svr4/tli/endpoint.h"
#include "svr4/tli/error.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

// A connection to a free port of this host may get that very port as its own end, and meet itself.
static bool IsConnectedToItself(int fd)
{
    Address here, there;
    return getsockname(fd, here.Generic(), here.Room()) == 0 && getpeername(fd, there.Generic(), there.Room()) == 0 &&
           here.length == there.length && memcmp(&here.storage, &there.storage, here.length) == 0;
}

// Waits until the attempt in T_OUTCON has succeeded or failed.
static int FinishConnect(Endpoint* endpoint, struct t_call* call)
{
    const int fd = endpoint->socket.fd;
    if (endpoint->reason == 0 && !IsReady(fd, POLLOUT) && endpoint->Await(POLLOUT, TNODATA) < 0)
        return -1;
    if (endpoint->IsDisconnected())
        return Fail(TLOOK);
    if (IsConnectedToItself(fd)) {
        Abort(fd);
        endpoint->reason = ECONNREFUSED;
        return Fail(TLOOK);
    }
    endpoint->state = T_DATAXFER;
    if (call == nullptr || call->addr.maxlen == 0)
        return 0;
    Address peer;
    if (getpeername(fd, peer.Generic(), peer.Room()) < 0)
        return endpoint->FailConnection(errno);
    return PutAddress(peer, &call->addr);
}

// The code for an attempt that could not be begun.
static int ConnectFailure(int error)
{
    switch (error) {
    case EADDRINUSE: return Fail(TADDRBUSY);
    case EACCES:
    case EPERM: return Fail(TACCES);
    default: return FailSystem(error);
    }
}

int t_connect(int fd, const struct t_call* sndcall, struct t_call* rcvcall)
{
    Endpoint* endpoint = FindIn(fd, In(T_IDLE));
    if (endpoint == nullptr)
        return -1;
    if (endpoint->qlen > 0)
        return Fail(TNOTSUPPORT);
    Address address;
    if (CheckCall(sndcall) < 0 || GetAddress(endpoint->provider, sndcall->addr, &address) < 0)
        return -1;
    if (endpoint->isSpent && !endpoint->RenewBound())
        return ConnectFailure(errno);
    if (endpoint->bound.length > 0)
        ReuseAddress(fd); // so that the next connection can have the address while this one lingers
    if (connect(fd, address.Generic(), address.length) < 0 && errno != EINPROGRESS) {
        if (!MeansDisconnect(errno))
            return ConnectFailure(errno);
        endpoint->reason = errno;
    }
    endpoint->isSpent = true;
    endpoint->state = T_OUTCON;
    return FinishConnect(endpoint, rcvcall);
}

int t_rcvconnect(int fd, struct t_call* call)
{
    Endpoint* endpoint = FindIn(fd, In(T_OUTCON));
    return endpoint == nullptr ? -1 : FinishConnect(endpoint, call);
}

} // namespace svr4
