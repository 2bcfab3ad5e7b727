// The faults of a daemon, in memory and on disk.
#ifndef EXAMPLES_FAULTSTORE_H
#define EXAMPLES_FAULTSTORE_H

#include <map>
#include <ostream>

#include "Misc/Error.h"
#include "Misc/FaultId.h"

#include "fault.h"

/// A set of faults, each with its attachment, that outlives the process: a FaultIdList in the file "list" of a
/// directory, and a file beside it for each fault. A change is in the files when the operation returns; a file is
/// replaced as a whole, so that a crash leaves the old or the new one. Operations return an ErrorType, 0 for success;
/// one that fails is reported and changes nothing.
class FaultStore : public ErrorReporter {
public:
    struct ByNodeAndNumber {
        bool operator()(const FaultId& a, const FaultId& b) const;
    };
    typedef std::map<FaultId, FaultRecord, ByNodeAndNumber> Faults;

    /// An empty store in `directory`, an absolute path.
    explicit FaultStore(const char* directory);

    /// Creates the directory, or reads the faults that are there. A list that cannot be read to its end is reported and
    /// set aside as "list.broken", and what was read counts. A fault whose file cannot be read is reported and kept,
    /// with a text that says so.
    short Load();
    const Faults& All() const { return faults; }
    /// The fault of that name, or null. It belongs to the store.
    const FaultRecord* Find(const FaultId& id) const;
    /// Adds a fault, or replaces the one of its name.
    short Put(const FaultRecord& fault);
    /// Changes the state of a fault of the store.
    short SetState(const FaultId& id, const char* state);
    short Remove(const FaultId& id);
    void dumpOn(std::ostream& out) const;

private:
    CString RecordFile(const FaultId& id) const;
    short LoadRecord(const FaultId& id, FaultRecord& fault) const;
    short SaveRecord(const FaultRecord& fault) const;
    short SaveList() const;
    short Rename(const CString& from, const CString& to) const;
    short Fail(short type, const char* what) const;

    const CString directory;
    const CString listFile;
    FaultIdList ids; // of all faults; kept in listFile + ".new", which then takes the place of listFile
    Faults faults;
};

#endif
