#include "fault.h"

#include <cstdio>
#include <cstring>

static const char* const EventNames[FaultEvents] = {"NONE", "STATUS", "RAISE", "LIST", "FETCH", "CLEAR", "RUN", "EXIT"};

const char* FaultEventName(short event)
{
    return event >= 0 && event < FaultEvents ? EventNames[event] : "(unknown)";
}

short FaultEventNumber(const char* name)
{
    for (short event = 0; event < FaultEvents; event++)
        if (std::strcmp(EventNames[event], name) == 0)
            return event;
    return -1;
}

// Reads one number or text. A stream leaves its position alone when it cannot read one, and can move it one beyond
// the end of a text that is cut short: both are noted as read errors.
template <class Value>
static void Scan(ZEListream& in, Value& value)
{
    const unsigned start = in.tellg();
    in >> value;
    if (in.tellg() == start || in.eof())
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

// Raw bytes travel behind their length.
static void ScanBytes(ZEListream& in, int length, Buffer& bytes)
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

static void PrintBytes(ZELostream& out, const Buffer& bytes)
{
    out.write(static_cast<const char*>(static_cast<const void*>(bytes)), bytes.Size());
}

CString FaultKey::Name() const
{
    char digits[16];
    std::snprintf(digits, sizeof digits, "/%08d", number);
    return node + digits;
}

bool FaultKey::operator<(const FaultKey& other) const
{
    const int order = std::strcmp(node, other.node);
    return order != 0 ? order < 0 : number < other.number;
}

void FaultKey::printOn(ZELostream& out) const
{
    out << node << number;
}

void FaultKey::scanFrom(ZEListream& in)
{
    Scan(in, node);
    Scan(in, number);
}

void FaultSummary::printOn(ZELostream& out) const
{
    key.printOn(out);
    out << raised << text << attached;
}

void FaultSummary::scanFrom(ZEListream& in)
{
    key.scanFrom(in);
    Scan(in, raised);
    Scan(in, text);
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

void FaultList::scanFrom(ZEListream& in)
{
    int count = 0;
    Scan(in, count);
    faults.clear();
    for (int i = 0; i < count && in.good(); i++) {
        FaultSummary fault;
        fault.scanFrom(in);
        faults.push_back(fault);
    }
}

void FaultCommand::printOn(ZELostream& out) const
{
    key.printOn(out);
    out << command;
}

void FaultCommand::scanFrom(ZEListream& in)
{
    key.scanFrom(in);
    Scan(in, command);
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
