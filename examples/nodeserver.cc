// SPDX-License-Identifier: BSD-2-Clause
#include "nodeserver.h"

#include <cstring>
#include <iostream>
#include <sstream>

#include "Misc/misc.h"
#include "Misc/proginfo.h"

static const long SilenceSeconds = 30; // for which a client may hold all others in the middle of an event

bool IsAccessOption(const char* text)
{
    for (const char* access : {"none", "read", "full", "global"})
        if (std::strcmp(text, access) == 0)
            return true;
    return false;
}

NodeServer::NodeServer(const char* name, const char* remoteAccess)
    : EventManager(name, &std::clog), remoteAccess(remoteAccess)
{
    InBasket().SetReceiveTimeOutEvent(TickEvent);
    InBasket().SetTransferTimeOut(SilenceSeconds);
}

bool NodeServer::IsAllowed(const char* node, bool onlyAsks) const
{
    if (std::strcmp(node, ProgInfo::GetNodeName()) == 0)
        return true;
    CString access;
    GetAccessOptionForNode(node, remoteAccess, access);
    return access == "full" || access == "global" || (access == "read" && onlyAsks);
}

short NodeServer::Handle_NULL_event()
{
    Answer(NO_ERRORS, Buffer());
    return NO_ERRORS;
}

short NodeServer::Handle_EXIT_event(short& exitnow)
{
    Answer(NO_ERRORS, Buffer());
    exitnow = 1;
    return NO_ERRORS;
}

void NodeServer::Answer(short status, const Buffer& data)
{
    if (!CurrentEventResponseRqd)
        return;
    const short sent = InBasket().send_response(CurrentEvent, status, data, static_cast<long>(data.Size()));
    if (sent == IPC_ERROR) // too much for a message; the sender need not wait for more
        InBasket().send_response(CurrentEvent, sent, nullptr, 0);
}

short NodeServer::Status(Buffer& answer) const
{
    std::ostringstream text;
    dumpOn(text);
    answer.Append(text.str().c_str());
    return NO_ERRORS;
}

void NodeServer::dumpOn(std::ostream& out) const { EventManager::dumpOn(out); }
