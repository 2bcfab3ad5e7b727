#include "svr4/tli.h"

#include <cerrno>

#include <poll.h>

#include "svr4/tli/endpoint.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

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

int t_getstate(int fd)
{
    const Endpoint* endpoint = Find(fd);
    return endpoint == nullptr ? -1 : endpoint->state;
}

} // namespace svr4
