// SPDX-License-Identifier: BSD-2-Clause
#include "faultstate.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <tuple>

#include "engine.h"
#include "examples/scan.h"

namespace fleet {

// Numbers of 64 bits travel as texts: those of the streams have as many as a long.
template <class Number>
static void PrintWide(ZELostream& out, Number number)
{
    out << CString(std::to_string(number).c_str());
}

template <class Number>
static void ScanWide(ZEListream& in, Number& number)
{
    CString text;
    Scan(in, text);
    const char* begin = text;
    const char* end = begin + text.strlen();
    const std::from_chars_result read = std::from_chars(begin, end, number);
    if (read.ec != std::errc() || read.ptr != end)
        in.SetReadErrorFlag();
}

bool operator<(const Place& a, const Place& b)
{
    return std::tie(a.stream, a.sequence, a.number) < std::tie(b.stream, b.sequence, b.number);
}

void Place::printOn(ZELostream& out) const
{
    PrintWide(out, stream);
    PrintWide(out, sequence);
    out << number;
}

void Place::scanFrom(ZEListream& in)
{
    ScanWide(in, stream);
    ScanWide(in, sequence);
    Scan(in, number);
}

void FleetFault::printOn(ZELostream& out) const
{
    place.printOn(out);
    out << journal << raised;
    last.printOn(out);
}

bool ReadFleetFault(const void* bytes, std::size_t size, FleetFault* fault, unsigned* last)
{
    Buffer data;
    errno = 0;
    data.Append(static_cast<const char*>(bytes), static_cast<unsigned>(size));
    ZEListream in(data);
    fault->place.scanFrom(in);
    Scan(in, fault->journal);
    Scan(in, fault->raised);
    if (last != nullptr)
        *last = in.tellg();
    fault->last.scanFrom(in);
    return errno != ENOMEM && in.good() && data.Size() == size && in.tellg() == size;
}

static std::string TextOf(const FaultId& id) { return static_cast<const char*>(id); }

static std::string PiecesOf(const FleetFault& fault)
{
    if (fault.last.kind == FaultChange::Cleared || fault.last.fault.attached == 0)
        return "";
    return PieceSubjects(std::string(fault.last.node), std::string(fault.journal), fault.raised);
}

// All of an entry that its fault says.
static void Describe(HostFaults::Entry& entry, const FleetFault& fault)
{
    entry.place = fault.place;
    entry.isThere = fault.last.kind != FaultChange::Cleared;
    entry.pieces = PiecesOf(fault);
}

HostFaults::Fault& HostFaults::At(const FaultId& id) { return *entries.try_emplace(TextOf(id)).first; }

void HostFaults::Set(Fault& known, const FleetFault& fault)
{
    Entry& entry = known.second;
    Buffer data;
    Pack(fault, data);
    Describe(entry, fault);
    entry.value.assign(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
    if (!entry.isNew)
        fresh.push_back(&known);
    entry.isNew = true;
}

void HostFaults::Know(const FleetFault& fault, const std::string& value, uint64_t revision)
{
    Entry& entry = At(fault.last.fault.hdr.myId).second;
    Describe(entry, fault);
    entry.value = value;
    entry.revision = revision;
}

void HostFaults::DropStored()
{
    fresh.erase(std::remove_if(fresh.begin(), fresh.end(), [](const Fault* fault) { return !fault->second.isNew; }),
                fresh.end());
}

bool HostFaults::Apply(const FaultChange& change, const std::string& journal, const Place& place)
{
    switch (change.kind) {
    case FaultChange::Began: ClearAll(change.time, place); return true;
    case FaultChange::Raised: Raise(change, journal, place); return true;
    case FaultChange::Moved: return Move(change, place);
    case FaultChange::Cleared: {
        const FaultId& id = change.fault.summary.hdr.myId;
        Clear(At(id), id, change.time, place);
        return true;
    }
    default: return true;
    }
}

void HostFaults::Raise(const FaultChange& change, const std::string& journal, const Place& place)
{
    const FleetFault fault = {
        place, journal.c_str(), change.number, {node.c_str(), FaultChange::Raised, change.time, change.fault.summary}};
    const std::string pieces = PiecesOf(fault);
    Fault& known = At(change.fault.summary.hdr.myId);
    const Entry& entry = known.second;
    const bool isNewer = entry.place < place;
    const std::string& useless = isNewer ? entry.pieces : pieces;
    if (!useless.empty() && entry.pieces != pieces)
        obsolete.push_back(useless);
    if (isNewer)
        Set(known, fault);
}

bool HostFaults::Move(const FaultChange& change, const Place& place)
{
    const auto at = entries.find(TextOf(change.fault.summary.hdr.myId));
    if (at != entries.end() && !(at->second.place < place))
        return true;
    FleetFault fault;
    if (at == entries.end() || !at->second.isThere ||
        !ReadFleetFault(at->second.value.data(), at->second.value.size(), &fault))
        return false;
    fault.place = place;
    fault.last.kind = FaultChange::Moved;
    fault.last.time = change.time;
    fault.last.fault.state = change.fault.summary.state;
    Set(*at, fault);
    return true;
}

void HostFaults::Clear(Fault& known, const FaultId& id, long time, const Place& place)
{
    const Entry& entry = known.second;
    if (!(entry.place < place))
        return;
    if (!entry.pieces.empty())
        obsolete.push_back(entry.pieces);
    FleetFault fault;
    fault.place = place;
    fault.last.node = node.c_str();
    fault.last.kind = FaultChange::Cleared;
    fault.last.time = time;
    fault.last.fault.hdr.myId = id;
    Set(known, fault);
}

void HostFaults::ClearAll(long time, const Place& place)
{
    for (Fault& known : entries) {
        FleetFault fault;
        if (known.second.isThere && ReadFleetFault(known.second.value.data(), known.second.value.size(), &fault))
            Clear(known, fault.last.fault.hdr.myId, time, place);
    }
}

} // namespace fleet
