// SPDX-License-Identifier: BSD-2-Clause
#include "centreserver.h"

#include <cerrno>

#include <sys/wait.h>

#include "request.h"

namespace fleet {

static const std::size_t LargeAnswer = 1 << 20; // bytes of faults, from which on an answer takes no more

CentreServer::CentreServer(FleetView& view, Asker& asker, const char* remoteAccess, pid_t applier)
    : NodeServer(CentreServerName, remoteAccess), view(view), asker(asker), applier(applier)
{
    InBasket().SetReceiveTimeOut(1);
}

// Waits for an event. Follows the bucket meanwhile, so that little is left to do for each event.
short CentreServer::GetNextEvent(short& event, Buffer& data, short& responseRqd, short& AckRqd, short& error)
{
    for (;;) {
        EventManager::GetNextEvent(event, data, responseRqd, AckRqd, error);
        if (hasApplier && waitpid(applier, nullptr, WNOHANG) != 0) {
            hasApplier = false;
            event = CentreExitEvent;
            return error;
        }
        view.Refresh();
        if (event != TickEvent || responseRqd || AckRqd)
            return error;
    }
}

short CentreServer::AcceptEvent(short event, const char* program, const char* node)
{
    if (!EventManager::AcceptEvent(event, program, node))
        return 0;
    return IsAllowed(node, event != CentreExitEvent); // what a request asks for is looked at when it is handled
}

short CentreServer::HandleEvent(short event)
{
    Buffer answer;
    short status = NO_ERRORS;
    errno = 0;
    switch (event) {
    case CentreStatusEvent: status = Status(answer); break;
    case CentreListEvent: status = List(answer); break;
    case CentreWatchEvent: status = Watch(answer); break;
    case CentreRequestEvent: status = Request(answer); break;
    case CentreAnswerEvent: status = GiveAnswer(answer); break;
    default: return Handle_UNSUPPORTED_event();
    }
    Answer(status, answer);
    return status;
}

short CentreServer::List(Buffer& answer)
{
    CentreListRequest request;
    if (!Unpack(CurrentEventData, request))
        return INVALID_DATA;
    if (!view.IsKnown())
        return IPC_RECV_TIME_OUT;
    view.List(request, LargeAnswer, answer);
    return NO_ERRORS;
}

short CentreServer::Watch(Buffer& answer)
{
    CentreWatchRequest request;
    if (!Unpack(CurrentEventData, request))
        return INVALID_DATA;
    if (!view.IsKnown())
        return IPC_RECV_TIME_OUT;
    view.Changes(request, LargeAnswer, answer);
    return NO_ERRORS;
}

short CentreServer::Request(Buffer& answer)
{
    CentreRequest request;
    if (!Unpack(CurrentEventData, request) || request.node.strlen() == 0)
        return INVALID_DATA;
    const bool onlyAsks = request.event == ListEvent || request.event == FetchEvent;
    if (!IsForCentres(request.event))
        return UNSUPPORTED_FEATURE;
    if (!IsAllowed(InBasket().LastSendersNodeName(), onlyAsks))
        return EVENT_REJECTED;
    CentreTicket ticket;
    ticket.number = asker.Ask(request);
    if (ticket.number == 0)
        return IPC_SEND_TIME_OUT;
    Pack(ticket, answer);
    return NO_ERRORS;
}

short CentreServer::GiveAnswer(Buffer& answer)
{
    CentreTicket ticket;
    CentreAnswer given;
    if (!Unpack(CurrentEventData, ticket))
        return INVALID_DATA;
    if (!asker.Take(ticket.number, &given))
        return ITEM_DOES_NOT_EXIST;
    Pack(given, answer);
    return NO_ERRORS;
}

void CentreServer::dumpOn(std::ostream& out) const
{
    NodeServer::dumpOn(out);
    view.dumpOn(out);
    asker.dumpOn(out);
}

} // namespace fleet
