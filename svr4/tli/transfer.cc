// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/tli.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include <poll.h>

#include "svr4/briefwait.h"
#include "svr4/tli/endpoint.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

int t_snd(int fd, const char* buf, unsigned nbytes, int flags)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_INREL));
    if (endpoint == nullptr)
        return -1;
    if ((flags & ~T_MORE) != 0)
        return Fail(flags & T_EXPEDITED ? TNOTSUPPORT : TBADFLAG);
    if (nbytes == 0 || nbytes > INT_MAX)
        return Fail(TBADDATA);
    unsigned sent = 0;
    while (sent < nbytes) {
        const ssize_t count = send(fd, buf + sent, nbytes - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<unsigned>(count);
        else if (errno != EAGAIN)
            return endpoint->FailConnection(errno);
        else if (endpoint->Await(POLLOUT, TFLOW) < 0)
            return sent > 0 ? static_cast<int>(sent) : -1;
    }
    return static_cast<int>(sent);
}

// Takes what is there: TNODATA when nothing is.
static int Take(Endpoint* endpoint, char* buf, unsigned nbytes)
{
    const ssize_t count = recv(endpoint->socket.fd, buf, std::min<unsigned>(nbytes, INT_MAX), 0);
    if (count > 0)
        return static_cast<int>(count);
    if (count == 0)
        return Fail(TLOOK); // T_ORDREL, or the T_DISCONNECT that was seen before
    return errno == EAGAIN ? Fail(TNODATA) : endpoint->FailConnection(errno);
}

int t_rcv(int fd, char* buf, unsigned nbytes, int* flags)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    if (flags != nullptr)
        *flags = 0;
    if (nbytes == 0)
        return 0;
    for (;;) {
        const int count = Take(endpoint, buf, nbytes);
        if (count >= 0 || t_errno != TNODATA || endpoint->Await(POLLIN, TNODATA) < 0)
            return count;
    }
}

int t_rcv_soon(int fd, char* buf, unsigned nbytes)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    if (nbytes == 0)
        return 0;
    int count = Take(endpoint, buf, nbytes);
    for (BriefWait wait; count < 0 && t_errno == TNODATA && wait.GivesWay();)
        count = Take(endpoint, buf, nbytes);
    return count;
}

// The event on the receiving side of a connection.
static int LookAtConnection(Endpoint* endpoint)
{
    if (endpoint->reason != 0)
        return T_DISCONNECT;
    char byte;
    const ssize_t count = recv(endpoint->socket.fd, &byte, 1, MSG_PEEK);
    if (count >= 0)
        return count > 0 ? T_DATA : T_ORDREL;
    if (!MeansDisconnect(errno))
        return 0;
    endpoint->reason = errno;
    return T_DISCONNECT;
}

int t_look(int fd)
{
    Endpoint* endpoint = Find(fd);
    if (endpoint == nullptr)
        return -1;
    switch (endpoint->state) {
    case T_IDLE:
    case T_INCON:
        if (endpoint->FindGone() != nullptr)
            return T_DISCONNECT;
        return endpoint->qlen > 0 && IsReady(fd, POLLIN) ? T_LISTEN : 0;
    case T_OUTCON:
        if (endpoint->reason == 0 && !IsReady(fd, POLLOUT))
            return 0;
        return endpoint->IsDisconnected() ? T_DISCONNECT : T_CONNECT;
    case T_DATAXFER:
    case T_OUTREL: return LookAtConnection(endpoint);
    case T_INREL: return endpoint->IsDisconnected() ? T_DISCONNECT : 0;
    default: return 0;
    }
}

int t_rcvdis(int fd, struct t_discon* discon)
{
    Endpoint* endpoint = FindIn(fd, Connected | In(T_OUTCON) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    int reason, sequence = -1;
    if (endpoint->state == T_INCON) {
        Request** place = endpoint->FindGone();
        if (place == nullptr)
            return Fail(TNODIS);
        const Request request = endpoint->Take(place);
        request.socket.Close();
        reason = request.reason;
        sequence = request.sequence;
    } else {
        if (!endpoint->IsDisconnected())
            return Fail(TNODIS);
        reason = endpoint->reason;
        endpoint->reason = 0;
        endpoint->state = T_IDLE;
    }
    if (discon != nullptr) {
        discon->reason = reason;
        discon->sequence = sequence;
        discon->udata.len = 0;
    }
    return 0;
}

int t_snddis(int fd, const struct t_call* call)
{
    Endpoint* endpoint = FindIn(fd, Connected | In(T_OUTCON) | In(T_INCON));
    if (endpoint == nullptr)
        return -1;
    if (call != nullptr && call->udata.len > 0)
        return Fail(TBADDATA);
    if (endpoint->state == T_INCON) {
        Request** place = call != nullptr ? endpoint->FindRequest(call->sequence) : nullptr;
        if (place == nullptr)
            return Fail(TBADSEQ);
        const Socket client = endpoint->Take(place).socket;
        if (client.IsOurs())
            Abort(client.fd);
        client.Close();
        return 0;
    }
    if (endpoint->IsDisconnected())
        return Fail(TLOOK);
    Abort(fd);
    endpoint->state = T_IDLE;
    return 0;
}

int t_sndrel(int fd)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_INREL));
    if (endpoint == nullptr)
        return -1;
    if (endpoint->IsDisconnected())
        return Fail(TLOOK);
    if (shutdown(fd, SHUT_WR) < 0)
        return endpoint->FailConnection(errno);
    endpoint->state = endpoint->state == T_INREL ? T_IDLE : T_OUTREL;
    return 0;
}

int t_rcvrel(int fd)
{
    Endpoint* endpoint = FindIn(fd, In(T_DATAXFER) | In(T_OUTREL));
    if (endpoint == nullptr)
        return -1;
    const int event = endpoint->IsDisconnected() ? T_DISCONNECT : t_look(fd);
    if (event != T_ORDREL)
        return Fail(event == T_DISCONNECT ? TLOOK : TNOREL);
    endpoint->state = endpoint->state == T_OUTREL ? T_IDLE : T_INREL;
    return 0;
}

} // namespace svr4
