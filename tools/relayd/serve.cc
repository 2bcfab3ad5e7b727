// SPDX-License-Identifier: BSD-2-Clause
#include "serve.h"

#include <cctype>
#include <cstdio>

#include "Misc/ipcq.h"
#include "Misc/proginfo.h"
#include "peer.h"

static const char* ModuleId() { return "$Id: relayd.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace relayd {

static const short GoneEvent = -1; // 0xFFFF: tells a client that its server has gone

// Sends a record of this program to the client. False when the connection is lost.
static bool Answer(IPCTli& connection, short object, short event, short status, const Buffer& data)
{
    TliMsgStruct record = {};
    std::snprintf(record.senders_version, sizeof record.senders_version, "%s", ProgInfo::GetVersion());
    std::snprintf(record.origprog, sizeof record.origprog, "%s", ProgInfo::GetFullProgramName());
    std::snprintf(record.orignode, sizeof record.orignode, "%s", ProgInfo::GetNodeName());
    record.object = object;
    record.event = event;
    record.result_code = status;
    return connection.send_block(&record, data, static_cast<long>(data.Size())) == ErrorReporter::NO_ERRORS;
}

static bool IsGone(short code)
{
    return code >= ErrorReporter::SERVER_GONE && code <= ErrorReporter::IPC_RECV_PROCESS_GONE;
}

// Passes an event on, and back what was asked for: a response, an acknowledgement, or nothing. A server that was
// started again since the last event is found again. False when the connection is to end.
static bool PassOn(IPCTli& connection, const Settings& settings, const TliMsgStruct& record, const Buffer& data)
{
    const short object = record.object;
    const bool response = record.response_rqd != 0;
    const bool ack = record.ack_rqd != 0;
    const char* name = settings.ServerOf(object);
    IPCQClient server(object, name);
    short code = server.IPCSend(record.origprog, record.orignode, record.senders_version, server.GetServerPID(), name,
                                object, record.event, data, static_cast<long>(data.Size()), response, ack, -1);
    for (int answers = response + ack; answers > 0 && !IsGone(code); answers--) {
        short event = 0;
        Buffer answer;
        const short status = code == ErrorReporter::NO_ERRORS ? server.receive_response(event, answer) : code;
        if (event == 0 && IsGone(status)) // with an event it is the status that a server gave
            code = status;
        else if (!Answer(connection, object, event, status, answer))
            return false;
    }
    if (!IsGone(code))
        return true;
    Answer(connection, object, GoneEvent, code, Buffer());
    return false;
}

// A text from outside, for a report.
static std::string Visible(const char* text)
{
    std::string visible = text;
    for (char& c : visible)
        if (!std::isgraph(static_cast<unsigned char>(c)) || c == '"' || c == '%')
            c = '?';
    return visible;
}

// Whether the sender of an event is who it says that it is. Every event of a connection names its sender anew; what the
// later records of an event say is used nowhere.
static bool IsBelieved(const TliMsgStruct& record, Peer& peer)
{
    if (peer.IsNode(record.orignode))
        return true;
    const std::string text = peer.Address() + " is not node \"" + Visible(record.orignode) + "\": event rejected";
    ErrorReporter()._ReportError(ErrorReporter::WARNING_WITH_LOG, ErrorReporter::EVENT_REJECTED, text.c_str(),
                                 ModuleId(), __LINE__);
    return false;
}

void Serve(IPCTli& connection, const Settings& settings, const SignalsHeld& signals)
{
    KeepAlive(connection.Descriptor(), settings.keepAliveSeconds);
    Peer peer(connection.Descriptor());
    TliMsgStruct record;
    Buffer data;
    for (bool goesOn = true; goesOn;) {
        while (!signals.Await(connection.Descriptor())) // a client may be silent for as long as it likes
            ;
        if (connection.recv_block(&record, data) != ErrorReporter::NO_ERRORS)
            return;
        if (record.QueueExistCheck) {
            const short lives = IPCQClient(record.object, settings.ServerOf(record.object)).Connected();
            goesOn = Answer(connection, record.object, 0, lives, Buffer());
        } else {
            goesOn =
                (settings.trustsNodeNames || IsBelieved(record, peer)) && PassOn(connection, settings, record, data);
        }
    }
}

} // namespace relayd
