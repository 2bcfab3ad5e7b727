// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/tli.h"

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include <poll.h>

#include "svr4/tli/endpoint.h"

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

// Refuses what this transport does not carry in its connect messages.
static int CheckCall(const struct t_call* call)
{
    if (call == nullptr)
        return FailSystem(EFAULT);
    if (call->opt.len > 0)
        return Fail(TBADOPT);
    return call->udata.len > 0 ? Fail(TBADDATA) : 0;
}

// Gives an endpoint that has had its connection a new socket, with the address that the earlier one was bound to.
static bool RenewBound(Endpoint* endpoint)
{
    if (!endpoint->Renew())
        return false;
    if (endpoint->bound.length == 0)
        return true;
    const int fd = endpoint->socket.fd;
    ReuseAddress(fd);
    endpoint->isSpent = bind(fd, endpoint->bound.Generic(), endpoint->bound.length) < 0; // to be tried again then
    return !endpoint->isSpent;
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
    if (endpoint->isSpent && !RenewBound(endpoint))
        return FailAddress(errno);
    if (endpoint->bound.length > 0)
        ReuseAddress(fd); // so that the next connection can have the address while this one lingers
    if (connect(fd, address.Generic(), address.length) < 0 && errno != EINPROGRESS) {
        if (!MeansDisconnect(errno))
            return FailAddress(errno);
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

// Waits for a client. Returns its socket, or none with t_errno.
static Socket AcceptSocket(const Endpoint* endpoint, Address* peer)
{
    for (int gone = 0;;) {
        const int fd = accept4(endpoint->socket.fd, peer->Generic(), peer->Room(), SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0 && errno == EAGAIN) {
            if (endpoint->Await(POLLIN, TNODATA) < 0)
                return Socket();
        } else if (fd >= 0 || !MeansDisconnect(errno) ||
                   ++gone > SOMAXCONN) { // no more than wait at a time can have gone
            const Socket client = Adopt(fd);
            if (client.IsNone())
                Fail(TSYSERR);
            return client;
        }
    }
}

int t_listen(int fd, struct t_call* call)
{
    Endpoint* endpoint = FindIn(fd, In(T_IDLE) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    if (endpoint->qlen == 0)
        return Fail(TBADQLEN);
    if (call == nullptr)
        return FailSystem(EFAULT);
    if (endpoint->FindGone() != nullptr)
        return Fail(TLOOK);
    if (endpoint->outstanding >= endpoint->qlen)
        return Fail(TQFULL);
    if (call->addr.maxlen > 0 && call->addr.maxlen < endpoint->provider.addressLength)
        return Fail(TBUFOVFLW);
    std::unique_ptr<Request> request(new (std::nothrow) Request);
    if (request == nullptr)
        return FailSystem(ENOMEM);
    Address peer;
    request->socket = AcceptSocket(endpoint, &peer);
    if (request->socket.IsNone())
        return -1;
    call->sequence = endpoint->Add(request.release());
    call->opt.len = 0;
    call->udata.len = 0;
    return PutAddress(peer, &call->addr);
}

// The endpoint `resfd` when it may take a connection that `listener`, which is `fd`, hands out; else null with t_errno.
static Endpoint* FindAcceptor(Endpoint* listener, int fd, int resfd)
{
    if (resfd == fd)
        return listener->outstanding > 1 ? Fail(TINDOUT) : listener;
    Endpoint* acceptor = FindIn(resfd, In(T_IDLE));
    if (acceptor == nullptr)
        return nullptr;
    if (acceptor->qlen > 0)
        return Fail(TRESQLEN);
    if (&acceptor->provider != &listener->provider)
        return Fail(TPROVMISMATCH);
    return acceptor;
}

int t_accept(int fd, int resfd, const struct t_call* call)
{
    Endpoint* listener = Find(fd);
    if (listener == nullptr || Find(resfd) == nullptr || FindIn(fd, In(T_INCON)) == nullptr)
        return -1;
    Endpoint* acceptor = FindAcceptor(listener, fd, resfd);
    if (acceptor == nullptr || CheckCall(call) < 0)
        return -1;
    Request** place = listener->FindRequest(call->sequence);
    if (place == nullptr)
        return Fail(TBADSEQ);
    if ((*place)->HasGone())
        return Fail(TLOOK);
    if (!acceptor->Replace(listener->Take(place).socket))
        return Fail(TSYSERR);
    acceptor->qlen = 0;
    acceptor->isSpent = true;
    acceptor->reason = 0;
    acceptor->state = T_DATAXFER;
    return 0;
}

} // namespace svr4
