// SPDX-License-Identifier: BSD-2-Clause
#include "fault.h"

#include <cctype>
#include <climits>
#include <cstring>

#include "scan.h"

static const char* const EventNames[FaultEvents] = {"NONE",  "STATUS", "RAISE", "LIST", "FETCH",   "CLEAR",       "RUN",
                                                    "START", "MOVE",   "MOVES", "EXIT", "CHANGES", "CHANGES_DONE"};

const char* FaultEventName(short event) { return event >= 0 && event < FaultEvents ? EventNames[event] : "(unknown)"; }

short FaultEventNumber(const char* name)
{
    for (short event = 0; event < FaultEvents; event++)
        if (std::strcmp(EventNames[event], name) == 0)
            return event;
    return -1;
}

bool IsFaultId(const FaultId& id)
{
    const CString& node = id.GetNodeName();
    if (node.strlen() == 0 || node.strlen() > FaultNodeLimit || id.GetId() < 0 || id.GetId() > INT_MAX)
        return false;
    for (const char* c = node; *c != '\0'; c++)
        if (!std::isgraph(static_cast<unsigned char>(*c)) || *c == '/' || *c == ':')
            return false;
    return id == FaultId(id.GetId(), node);
}

void ScanId(ZEListream& in, FaultId& id)
{
    id.scanFrom(in);
    if (!IsFaultId(id))
        in.SetReadErrorFlag();
}

// Whether `length`, which the sender chose, is the length of something that is really there.
static bool Holds(ZEListream& in, int length)
{
    const unsigned here = in.tellg();
    in.seekg(static_cast<long>(here) + length, std::ios::beg);
    const bool there = length >= 0 && !in.eof();
    in.seekg(here, std::ios::beg);
    return there;
}

void ScanBytes(ZEListream& in, int length, Buffer& bytes)
{
    bytes.PurgeContents();
    if (!in.good() || !Holds(in, length)) {
        in.SetReadErrorFlag();
        return;
    }
    if (length == 0)
        return;
    bytes.ReSize(static_cast<unsigned>(length));
    if (bytes.Size() == static_cast<unsigned>(length))
        in.read(&bytes[0], bytes.Size());
    else
        in.SetReadErrorFlag(); // out of memory
}

void PrintBytes(ZELostream& out, const Buffer& bytes)
{
    out.write(static_cast<const char*>(static_cast<const void*>(bytes)), bytes.Size());
}

// Options travel behind their number.
static void PrintOptions(ZELostream& out, const OptionSafeArray& options)
{
    out << static_cast<int>(options.Quantity());
    for (unsigned i = 0; i < options.Quantity(); i++)
        out << *options[static_cast<int>(i)];
}

static void ScanOptions(ZEListream& in, OptionSafeArray& options)
{
    unsigned count = 0;
    Scan(in, count);
    options.DeleteAllItems();
    if (count > FaultOptionLimit)
        in.SetReadErrorFlag();
    for (unsigned i = 0; i < count && in.good(); i++) {
        Option* option = new Option;
        options.AddItem(option);
        Scan(in, option->Name);
        Scan(in, option->Value);
    }
}

void FaultSummary::printOn(ZELostream& out) const
{
    hdr.myId.printOn(out);
    out << raised << state << text;
    PrintOptions(out, options);
    out << attached;
}

void FaultSummary::scanFrom(ZEListream& in)
{
    ScanId(in, hdr.myId);
    Scan(in, raised);
    Scan(in, state);
    Scan(in, text);
    ScanOptions(in, options);
    Scan(in, attached);
}

void FaultRecord::printOn(ZELostream& out) const
{
    summary.printOn(out);
    PrintBytes(out, attachment);
}

void FaultRecord::scanFrom(ZEListream& in)
{
    summary.scanFrom(in);
    ScanBytes(in, summary.attached, attachment);
}

void FaultList::printOn(ZELostream& out) const
{
    out << static_cast<int>(faults.size());
    for (const FaultSummary& fault : faults)
        fault.printOn(out);
}

void FaultList::scanFrom(ZEListream& in) { ScanList(in, faults); }

void FaultCommand::printOn(ZELostream& out) const
{
    id.printOn(out);
    out << command;
}

void FaultCommand::scanFrom(ZEListream& in)
{
    ScanId(in, id);
    Scan(in, command);
}

void FaultMove::printOn(ZELostream& out) const
{
    id.printOn(out);
    out << state;
}

void FaultMove::scanFrom(ZEListream& in)
{
    ScanId(in, id);
    Scan(in, state);
}

void FaultChange::printOn(ZELostream& out) const
{
    out << number << time << static_cast<int>(kind);
    if (kind == Raised)
        fault.printOn(out);
    else if (kind != Began)
        fault.summary.hdr.myId.printOn(out);
    if (kind == Moved)
        out << fault.summary.state;
}

void FaultChange::scanFrom(ZEListream& in)
{
    int read = Kinds;
    Scan(in, number);
    Scan(in, time);
    Scan(in, read);
    if (number <= 0 || read < 0 || read >= Kinds || !in.good()) {
        in.SetReadErrorFlag();
        return;
    }
    kind = static_cast<Kind>(read);
    if (kind == Raised)
        fault.scanFrom(in);
    else if (kind != Began)
        ScanId(in, fault.summary.hdr.myId);
    if (kind == Moved)
        Scan(in, fault.summary.state);
}

void ChangesRequest::printOn(ZELostream& out) const { out << since << most; }

void ChangesRequest::scanFrom(ZEListream& in)
{
    Scan(in, since);
    Scan(in, most);
    if (since < 0 || most <= 0)
        in.SetReadErrorFlag();
}

void FaultChangeList::printOn(ZELostream& out) const
{
    out << journal << last << static_cast<int>(changes.size());
    for (const FaultChange& change : changes)
        change.printOn(out);
}

void FaultChangeList::scanFrom(ZEListream& in)
{
    int count = 0;
    Scan(in, journal);
    Scan(in, last);
    Scan(in, count);
    changes.clear();
    long earlier = 0;
    for (int i = 0; i < count && in.good(); i++) {
        changes.emplace_back();
        changes.back().scanFrom(in);
        if (changes.back().number <= earlier || changes.back().number > last)
            in.SetReadErrorFlag();
        earlier = changes.back().number;
    }
    if (count < 0 || last < 0)
        in.SetReadErrorFlag();
}

void ChangesDone::printOn(ZELostream& out) const { out << number; }

void ChangesDone::scanFrom(ZEListream& in)
{
    Scan(in, number);
    if (number < 0)
        in.SetReadErrorFlag();
}

void CommandResult::printOn(ZELostream& out) const
{
    out << exitStatus << static_cast<int>(output.Size());
    PrintBytes(out, output);
}

void CommandResult::scanFrom(ZEListream& in)
{
    int length = 0;
    Scan(in, exitStatus);
    Scan(in, length);
    ScanBytes(in, length, output);
}
