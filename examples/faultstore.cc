#include "faultstore.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

static const char* ModuleId() { return "$Id: faultstore.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

bool FaultStore::ByNodeAndNumber::operator()(const FaultId& a, const FaultId& b) const
{
    const int order = std::strcmp(a.GetNodeName(), b.GetNodeName());
    return order != 0 ? order < 0 : a.GetId() < b.GetId();
}

FaultStore::FaultStore(const char* directory)
    : directory(directory), listFile(this->directory + "/list"), ids(listFile + ".new")
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
    struct stat status;
    if (mkdir(directory, 0755) != 0 && (stat(directory, &status) != 0 || !S_ISDIR(status.st_mode)))
        return Fail(MKDIR_FAILED, directory);
    if (access(listFile, F_OK) != 0 && errno == ENOENT)
        return NO_ERRORS; // the first start
    FaultIdList saved(listFile);
    const int reports = GetErrorCount();
    saved.Load(); // tells of a failure only in a report
    const bool isWhole = GetErrorCount() == reports;
    if (!isWhole)
        std::rename(listFile, listFile + ".broken"); // whoever can mend it still has it
    while (const FaultId* id = saved.GetNext()) {
        if (!IsFaultId(*id))
            continue;
        FaultRecord fault;
        const bool read = LoadRecord(*id, fault) == NO_ERRORS;
        faults.emplace(*id, read ? fault : LostRecord(*id));
        ids.AddFaultId(*id);
    }
    return isWhole ? static_cast<short>(NO_ERRORS) : SaveList();
}

const FaultRecord* FaultStore::Find(const FaultId& id) const
{
    const Faults::const_iterator at = faults.find(id);
    return at != faults.end() ? &at->second : nullptr;
}

short FaultStore::Put(const FaultRecord& fault)
{
    const FaultId& id = fault.summary.hdr.myId;
    const bool added = Find(id) == nullptr;
    if (added && ids.MyQuantity() == SHRT_MAX)
        return Fail(TOO_MANY_FAULTS, id);
    short status = SaveRecord(fault);
    if (status == NO_ERRORS && added) {
        ids.AddFaultId(id);
        status = SaveList();
        if (status != NO_ERRORS) {
            ids.DeleteOne(id);
            unlink(RecordFile(id));
        }
    }
    if (status != NO_ERRORS)
        return status;
    faults.erase(id);
    faults.emplace(id, fault);
    return NO_ERRORS;
}

short FaultStore::SetState(const FaultId& id, const char* state)
{
    CString& current = faults.at(id).summary.state;
    const CString earlier = current;
    current = state;
    const short status = SaveRecord(faults.at(id));
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
        return status;
    }
    unlink(RecordFile(removed));
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
CString FaultStore::RecordFile(const FaultId& id) const
{
    CString name = directory + "/";
    for (const char* c = id; *c != '\0'; c++) {
        const unsigned char byte = static_cast<unsigned char>(*c);
        char text[4];
        std::snprintf(text, sizeof text, std::isalnum(byte) ? "%c" : "%%%02X", byte);
        name += text;
    }
    return name;
}

short FaultStore::LoadRecord(const FaultId& id, FaultRecord& fault) const
{
    const CString file = RecordFile(id);
    Buffer data;
    errno = 0;
    if (!data.LoadBufferFromFile(file) || !Unpack(data, fault) || fault.summary.hdr.myId != id)
        return Fail(READING_FROM_FILE, file);
    return NO_ERRORS;
}

short FaultStore::SaveRecord(const FaultRecord& fault) const
{
    const CString file = RecordFile(fault.summary.hdr.myId);
    Buffer data;
    Pack(fault, data);
    const short status = data.SaveBufferToFile(file + ".new", 0);
    return status == NO_ERRORS ? Rename(file + ".new", file) : status;
}

short FaultStore::SaveList() const
{
    const int reports = GetErrorCount();
    ids.Save(); // tells of a failure only in a report
    return GetErrorCount() == reports ? Rename(listFile + ".new", listFile) : static_cast<short>(WRITING_TO_FILE);
}

short FaultStore::Rename(const CString& from, const CString& to) const
{
    return std::rename(from, to) == 0 ? static_cast<short>(NO_ERRORS) : Fail(WRITING_TO_FILE, to);
}

short FaultStore::Fail(short type, const char* what) const
{
    _ReportError(WARNING, type, what, ModuleId(), __LINE__);
    return type;
}
