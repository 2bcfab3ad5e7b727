// SPDX-License-Identifier: BSD-2-Clause
#include "faultcentre.h"

#include <cstring>

#include "scan.h"

static const char* const EventNames[CentreEvents] = {"NONE", "STATUS", "LIST", "WATCH", "REQUEST", "ANSWER", "EXIT"};

const char* CentreEventName(short event)
{
    return event >= 0 && event < CentreEvents ? EventNames[event] : "(unknown)";
}

short CentreEventNumber(const char* name)
{
    for (short event = 0; event < CentreEvents; event++)
        if (std::strcmp(EventNames[event], name) == 0)
            return event;
    return -1;
}

static void PrintFaults(ZELostream& out, const std::vector<CentreFault>& faults)
{
    out << static_cast<int>(faults.size());
    for (const CentreFault& fault : faults)
        fault.printOn(out);
}

void CentreFault::printOn(ZELostream& out) const
{
    out << node << static_cast<int>(kind) << time;
    if (kind == FaultChange::Cleared)
        fault.hdr.myId.printOn(out);
    else
        fault.printOn(out);
}

void CentreFault::scanFrom(ZEListream& in)
{
    int read = FaultChange::Kinds;
    Scan(in, node);
    Scan(in, read);
    Scan(in, time);
    if (read != FaultChange::Raised && read != FaultChange::Moved && read != FaultChange::Cleared) {
        in.SetReadErrorFlag();
        return;
    }
    kind = static_cast<FaultChange::Kind>(read);
    if (kind == FaultChange::Cleared)
        ScanId(in, fault.hdr.myId);
    else
        fault.scanFrom(in);
}

void CentreListRequest::printOn(ZELostream& out) const { out << node << after; }

void CentreListRequest::scanFrom(ZEListream& in)
{
    Scan(in, node);
    Scan(in, after);
}

void CentreList::printOn(ZELostream& out) const
{
    out << after;
    PrintFaults(out, faults);
}

void CentreList::scanFrom(ZEListream& in)
{
    Scan(in, after);
    ScanList(in, faults);
}

void CentreWatchRequest::printOn(ZELostream& out) const { out << since; }

void CentreWatchRequest::scanFrom(ZEListream& in)
{
    Scan(in, since);
    if (since < -1)
        in.SetReadErrorFlag();
}

void CentreChanges::printOn(ZELostream& out) const
{
    out << since << static_cast<int>(isAll);
    PrintFaults(out, faults);
}

void CentreChanges::scanFrom(ZEListream& in)
{
    int all = 0;
    Scan(in, since);
    Scan(in, all);
    isAll = all != 0;
    ScanList(in, faults);
}

void CentreRequest::printOn(ZELostream& out) const
{
    out << node << static_cast<int>(event) << static_cast<int>(data.Size());
    PrintBytes(out, data);
}

void CentreRequest::scanFrom(ZEListream& in)
{
    int number = 0, length = 0;
    Scan(in, node);
    Scan(in, number);
    Scan(in, length);
    ScanBytes(in, length, data);
    if (number < 0 || number >= FaultEvents)
        in.SetReadErrorFlag();
    event = static_cast<short>(number);
}

void CentreTicket::printOn(ZELostream& out) const { out << number; }

void CentreTicket::scanFrom(ZEListream& in) { Scan(in, number); }

void CentreAnswer::printOn(ZELostream& out) const
{
    out << static_cast<int>(progress) << static_cast<int>(status) << static_cast<int>(data.Size());
    PrintBytes(out, data);
}

void CentreAnswer::scanFrom(ZEListream& in)
{
    int read = States, number = 0, length = 0;
    Scan(in, read);
    Scan(in, number);
    Scan(in, length);
    ScanBytes(in, length, data);
    if (read < 0 || read >= States)
        in.SetReadErrorFlag();
    progress = static_cast<Progress>(read);
    status = static_cast<short>(number);
}
