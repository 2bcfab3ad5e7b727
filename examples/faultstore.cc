// SPDX-License-Identifier: BSD-2-Clause
#include "faultstore.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <dirent.h>
#include <unistd.h>

#include "Misc/nfstream.h"

#include "durablefile.h"

static const char* ModuleId() { return "$Id: faultstore.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

bool FaultStore::ByNodeAndNumber::operator()(const FaultId& a, const FaultId& b) const
{
    const int order = std::strcmp(a.GetNodeName(), b.GetNodeName());
    return order != 0 ? order < 0 : a.GetId() < b.GetId();
}

FaultStore::FaultStore(const char* directory)
    : directory(directory), listFile(this->directory + "/list"), isNew(false), hasLost(false), isInStep(false),
      ids(nullptr)
{
}

static FaultRecord LostRecord(const FaultId& id)
{
    FaultRecord fault;
    fault.summary.hdr.myId = id;
    fault.summary.state = FirstFaultState;
    fault.summary.text = "(the record of this fault could not be read)";
    return fault;
}

short FaultStore::Load()
{
    const short status = Read();
    return status == NO_ERRORS ? Mend() : status;
}

short FaultStore::Read()
{
    FaultIdList saved(nullptr);
    short status = Open();
    if (status == NO_ERRORS)
        status = ReadList(saved);
    if (status == NO_ERRORS)
        status = ReadRecords(saved);
    return status;
}

short FaultStore::Mend()
{
    short status = MoveAside();
    isInStep = status == NO_ERRORS;
    if (isInStep && (isNew || broken.count(listFile) != 0))
        status = SaveList();
    isInStep = status == NO_ERRORS;
    return status;
}

// Makes the directory, or removes from it what a crash left half written. `isNew` is set when no file is seen in it.
short FaultStore::Open()
{
    if (const int error = MakeDirectory(directory.c_str()))
        return Fail(MKDIR_FAILED, directory, error);
    DIR* files = opendir(directory.c_str());
    if (files == nullptr)
        return Fail(errno == ENOTDIR ? MKDIR_FAILED : OPENING_FILE, directory, errno);
    std::vector<std::string> names;
    const int error = ReadNames(files, names);
    isNew = names.empty(); // a list that is missing beside other files has been lost
    return error == 0 ? static_cast<short>(NO_ERRORS) : Fail(READING_FROM_FILE, directory, error);
}

// A directory without files has no list. But a host may show a directory as empty that it failed to read: `isNew` stays
// set only when the list is not there either.
short FaultStore::ReadList(FaultIdList& saved)
{
    Buffer data;
    const int error = ReadWholeFile(listFile.c_str(), data);
    if (error == ENOENT && isNew)
        return NO_ERRORS;
    isNew = false;
    if (error != 0)
        return Fail(READING_FROM_FILE, listFile, error);
    std::istringstream bytes(std::string(static_cast<const char*>(static_cast<const void*>(data)), data.Size()));
    infstream in(bytes);
    const int reports = GetErrorCount();
    errno = 0;
    saved.scanFrom(in);
    if (errno == ENOMEM || GetErrorCount() != reports)
        return Fail(READING_FROM_FILE, listFile, ENOMEM); // the list may be sound
    if (!in.good() || bytes.peek() != std::istringstream::traits_type::eof())
        NoteBroken(listFile);
    return NO_ERRORS;
}

// Reads the faults of the list.
short FaultStore::ReadRecords(FaultIdList& saved)
{
    while (const FaultId* id = saved.GetNext()) {
        errno = 0;
        if (!IsFaultId(*id)) {
            if (errno == ENOMEM)
                return Fail(OUT_OF_MEMORY, listFile, ENOMEM);
            NoteBroken(listFile);
            continue;
        }
        const short status = ReadRecord(*id);
        if (status != NO_ERRORS)
            return status;
        ids.AddFaultId(*id);
        if (static_cast<std::size_t>(ids.MyQuantity()) != faults.size())
            return Fail(OUT_OF_MEMORY, listFile, ENOMEM);
    }
    return NO_ERRORS;
}

short FaultStore::ReadRecord(const FaultId& id)
{
    const std::string file = RecordFile(id);
    Buffer data;
    FaultRecord fault;
    int error = ReadWholeFile(file.c_str(), data);
    const bool isWhole = error == 0 && Unpack(data, fault) && fault.summary.hdr.myId == id;
    if (error == 0 && !isWhole && errno == ENOMEM)
        error = ENOMEM; // the record may be sound
    if (error != 0 && error != ENOENT)
        return Fail(READING_FROM_FILE, file, error);
    errno = 0;
    faults.emplace(id, isWhole ? fault : LostRecord(id));
    if (errno == ENOMEM)
        return Fail(READING_FROM_FILE, file, ENOMEM);
    hasLost = hasLost || !isWhole;
    if (error == ENOENT)
        Fail(READING_FROM_FILE, file, ENOENT);
    else if (!isWhole)
        NoteBroken(file);
    return NO_ERRORS;
}

void FaultStore::NoteBroken(const std::string& file)
{
    if (broken.insert(file).second)
        Fail(READING_FROM_FILE, file, 0);
}

// Sets the files aside. The list keeps its place until another takes it, so that there always is one.
short FaultStore::MoveAside() const
{
    for (const std::string& file : broken) {
        int error = SetAside(file.c_str());
        if (error == 0 && file != listFile && unlink(file.c_str()) != 0)
            error = errno;
        if (error == 0)
            error = SyncDirectory(directory.c_str());
        if (error != 0)
            return Fail(WRITING_TO_FILE, file, error);
    }
    return NO_ERRORS;
}

const FaultRecord* FaultStore::Find(const FaultId& id) const
{
    const Faults::const_iterator at = faults.find(id);
    return at != faults.end() ? &at->second : nullptr;
}

short FaultStore::FindRoom(const FaultId& id) const
{
    if (Find(id) == nullptr && ids.MyQuantity() == SHRT_MAX)
        return Fail(TOO_MANY_FAULTS, static_cast<const char*>(id), 0);
    return NO_ERRORS;
}

short FaultStore::Put(const FaultRecord& fault)
{
    const FaultId& id = fault.summary.hdr.myId;
    const bool isAdded = Find(id) == nullptr;
    if (FindRoom(id) != NO_ERRORS)
        return TOO_MANY_FAULTS;
    Faults copy; // made first: what is on the disk is in memory, too, and whole
    errno = 0;
    copy.emplace(id, fault);
    if (errno == ENOMEM)
        return Fail(OUT_OF_MEMORY, static_cast<const char*>(id), ENOMEM);
    short status = SaveRecord(fault);
    if (status == NO_ERRORS && isAdded)
        status = Enlist(id);
    if (status != NO_ERRORS)
        return status;
    faults.erase(id);
    faults.merge(copy);
    return NO_ERRORS;
}

// Adds a fault, whose record is saved, to the list.
short FaultStore::Enlist(const FaultId& id)
{
    const short quantity = ids.MyQuantity();
    ids.AddFaultId(id); // tells of memory that fails only in a report
    const short status = ids.MyQuantity() > quantity ? SaveList() : static_cast<short>(OUT_OF_MEMORY);
    if (status != NO_ERRORS) {
        ids.DeleteOne(id);
        if (isInStep) // else the list may have it
            unlink(RecordFile(id).c_str());
    }
    return status;
}

short FaultStore::SetState(const FaultId& id, const char* state)
{
    CString& current = faults.at(id).summary.state;
    const CString earlier = current;
    current = state;
    const bool isWhole = current == state; // without memory it is empty
    const short status =
        isWhole ? SaveRecord(faults.at(id)) : Fail(OUT_OF_MEMORY, static_cast<const char*>(id), ENOMEM);
    if (status != NO_ERRORS)
        current = earlier;
    return status;
}

short FaultStore::Remove(const FaultId& id)
{
    const FaultId removed = id; // which may be the key of the map
    ids.DeleteOne(removed);
    const short status = SaveList();
    if (status != NO_ERRORS) {
        ids.AddFaultId(removed);
        isInStep = isInStep && static_cast<std::size_t>(ids.MyQuantity()) == faults.size();
        return status;
    }
    unlink(RecordFile(removed).c_str()); // what stays of a fault that is not in the list means nothing
    faults.erase(removed);
    return NO_ERRORS;
}

void FaultStore::dumpOn(std::ostream& out) const
{
    ids.dumpOn(out);
    out << "Faults: " << faults.size() << std::endl;
    for (const auto& entry : faults) {
        const FaultSummary& fault = entry.second.summary;
        out << entry.first << ": " << fault.state << ", " << fault.text << " (" << fault.attached << " bytes attached)"
            << std::endl;
        for (unsigned i = 0; i < fault.options.Quantity(); i++) {
            const Option& option = *fault.options[static_cast<int>(i)];
            out << "  " << option.Name << " = " << option.Value << std::endl;
        }
    }
}

// The name of the fault, with the characters that could mean something in a path as % and two hex digits.
std::string FaultStore::RecordFile(const FaultId& id) const
{
    std::string name = directory + "/";
    for (const char* c = id; *c != '\0'; c++) {
        const unsigned char byte = static_cast<unsigned char>(*c);
        char text[4];
        std::snprintf(text, sizeof text, std::isalnum(byte) ? "%c" : "%%%02X", byte);
        name += text;
    }
    return name;
}

short FaultStore::SaveRecord(const FaultRecord& fault)
{
    const std::string file = RecordFile(fault.summary.hdr.myId);
    Buffer data;
    errno = 0;
    Pack(fault, data);
    if (errno == ENOMEM)
        return Fail(OUT_OF_MEMORY, file, ENOMEM); // it has room for a part only
    return Save(file, data, data.Size());
}

short FaultStore::SaveList()
{
    std::ostringstream bytes;
    onfstream out(bytes);
    ids.printOn(out);
    out.flush();
    if (!out.good())
        return Fail(OUT_OF_MEMORY, listFile, ENOMEM);
    const std::string list = bytes.str();
    return Save(listFile, list.data(), list.size());
}

short FaultStore::Save(const std::string& file, const void* bytes, std::size_t size)
{
    if (!isInStep)
        return Fail(WRITING_TO_FILE, file, 0);
    if (const int error = ReplaceFile(file.c_str(), bytes, size))
        return Fail(WRITING_TO_FILE, file, error);
    const int error = SyncDirectory(directory.c_str());
    isInStep = error == 0;
    return isInStep ? static_cast<short>(NO_ERRORS) : Fail(WRITING_TO_FILE, directory, error);
}

short FaultStore::Fail(short type, const std::string& what, int error) const
{
    errno = error;
    _ReportError(WARNING, type, what.c_str(), ModuleId(), __LINE__);
    return type;
}
