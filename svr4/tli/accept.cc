#include "svr4/tli.h"

#include <cerrno>
#include <new>

#include <poll.h>

#include "svr4/tli/endpoint.h"
#include "svr4/tli/error.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

// Waits for a client. Returns its socket.
static int AcceptSocket(const Endpoint* endpoint, Address* peer)
{
    for (;;) {
        const int fd = accept4(endpoint->socket.fd, peer->Generic(), peer->Room(), SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd >= 0)
            return fd;
        if (errno == EAGAIN) {
            if (endpoint->Await(POLLIN, TNODATA) < 0)
                return -1;
        } else if (!MeansDisconnect(errno)) { // else that client has gone already
            return Fail(TSYSERR);
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
    Request* request = new (std::nothrow) Request;
    if (request == nullptr)
        return FailSystem(ENOMEM);
    Address peer;
    const int client = AcceptSocket(endpoint, &peer);
    if (client < 0) {
        delete request;
        return -1;
    }
    request->socket = Socket(client);
    endpoint->Add(request);
    call->sequence = request->sequence;
    call->opt.len = 0;
    call->udata.len = 0;
    return PutAddress(peer, &call->addr);
}

// The endpoint `resfd` when it may take a connection that `listener`, which is `fd`, hands out; else null with t_errno.
static Endpoint* FindAcceptor(Endpoint* listener, int fd, int resfd)
{
    if (resfd == fd) {
        if (listener->outstanding > 1)
            return Fail(TINDOUT);
        return listener;
    }
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
    if (!acceptor->Replace(listener->Take(place).socket.fd))
        return Fail(TSYSERR);
    acceptor->qlen = 0;
    acceptor->isSpent = true;
    acceptor->reason = 0;
    acceptor->state = T_DATAXFER;
    return 0;
}

} // namespace svr4
