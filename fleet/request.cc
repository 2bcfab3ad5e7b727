// SPDX-License-Identifier: BSD-2-Clause
#include "request.h"

#include <cctype>
#include <climits>
#include <cstring>

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

bool IsForCentres(short event)
{
    return event == ListEvent || event == FetchEvent || event == RunEvent || event == MoveEvent || event == ClearEvent;
}

} // namespace fleet
