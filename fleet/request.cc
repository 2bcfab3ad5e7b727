// SPDX-License-Identifier: BSD-2-Clause
#include "request.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <climits>
#include <cstring>

#include "engine.h"
#include "message.h"

namespace fleet {

// A number and bytes, as a command's result has them.
static void Print(ZELostream& out, short number, const Buffer& data)
{
    CommandResult carrier;
    carrier.exitStatus = number;
    carrier.output = data;
    carrier.printOn(out);
}

static void Scan(ZEListream& in, short& number, Buffer& data)
{
    CommandResult carrier;
    carrier.scanFrom(in);
    if (carrier.exitStatus < SHRT_MIN || carrier.exitStatus > SHRT_MAX)
        in.SetReadErrorFlag();
    number = static_cast<short>(carrier.exitStatus);
    data = carrier.output;
}

// A zero byte would end the name for some who read it and not for others.
static bool IsNodeName(const CString& name)
{
    const char* text = name;
    const std::size_t length = std::strlen(text);
    if (length != name.strlen() || length == 0 || length > FaultNodeLimit)
        return false;
    for (; *text != '\0'; text++)
        if (!std::isgraph(static_cast<unsigned char>(*text)))
            return false;
    return true;
}

void FleetRequest::printOn(ZELostream& out) const
{
    out << centre;
    Print(out, event, data);
}

void FleetRequest::scanFrom(ZEListream& in)
{
    in >> centre;
    if (!IsNodeName(centre))
        in.SetReadErrorFlag();
    Scan(in, event, data);
}

void FleetAnswer::printOn(ZELostream& out) const { Print(out, status, data); }

void FleetAnswer::scanFrom(ZEListream& in) { Scan(in, status, data); }

static const char LeftHeader[] = "Fault-Left";  // parts behind this one
static const unsigned LargestAnswer = 64 << 20; // bytes, more than a message of a daemon's queue has

static natsStatus SendPart(natsConnection* connection, const std::string& to, const char* bytes, unsigned size,
                           unsigned left)
{
    natsMsg* made = nullptr;
    natsStatus status = natsMsg_Create(&made, to.c_str(), nullptr, bytes, static_cast<int>(size));
    const Message message(made, natsMsg_Destroy);
    if (status == NATS_OK)
        status = natsMsgHeader_Set(made, LeftHeader, std::to_string(left).c_str());
    return status == NATS_OK ? natsConnection_PublishMsg(connection, made) : status;
}

natsStatus AnswerParts::Send(natsConnection* connection, const std::string& to, const FleetAnswer& answer)
{
    Buffer data;
    Pack(answer, data);
    const char* bytes = static_cast<const char*>(static_cast<const void*>(data));
    natsStatus status = NATS_OK;
    for (unsigned at = 0; at < data.Size() && status == NATS_OK; at += PieceSize) {
        const unsigned rest = data.Size() - at;
        status = SendPart(connection, to, bytes + at, std::min(rest, PieceSize), (rest - 1) / PieceSize);
    }
    return status;
}

bool AnswerParts::Take(natsMsg* message)
{
    const char* text = nullptr;
    long now = -1;
    if (natsMsgHeader_Get(message, LeftHeader, &text) != NATS_OK)
        return false;
    const char* end = text + std::strlen(text);
    const std::from_chars_result read = std::from_chars(text, end, now);
    const int size = natsMsg_GetDataLength(message);
    if (read.ec != std::errc() || read.ptr != end || now < 0 || (left >= 0 && now != left - 1) ||
        static_cast<unsigned>(size) > LargestAnswer - data.Size())
        return false;
    left = now;
    data.Append(natsMsg_GetData(message), static_cast<unsigned>(size));
    return true;
}

bool IsForCentres(short event)
{
    return event == ListEvent || event == FetchEvent || event == RunEvent || event == MoveEvent || event == ClearEvent;
}

} // namespace fleet
