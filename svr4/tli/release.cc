#include "svr4/tli.h"

#include <cerrno>

#include "svr4/tli/endpoint.h"
#include "svr4/tli/error.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: tli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

using namespace tli;

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
