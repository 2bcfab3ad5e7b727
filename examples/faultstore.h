// SPDX-License-Identifier: BSD-2-Clause
// The faults of a daemon, in memory and on disk.
#ifndef EXAMPLES_FAULTSTORE_H
#define EXAMPLES_FAULTSTORE_H

#include <cstddef>
#include <map>
#include <ostream>
#include <set>
#include <string>

#include "Misc/Error.h"
#include "Misc/FaultId.h"

#include "fault.h"

/// A set of faults, each with its attachment, that outlives the process: a FaultIdList in the file "list" of a
/// directory, and a file beside it for each fault. A change is on the disk when the operation returns, and a file is
/// replaced as a whole: a crash or a power cut leaves the faults of before the change or those of after it. Operations
/// return an ErrorType, 0 for success; one that fails is reported, changes nothing and leaves no file behind.
///
/// Nothing that has not been read is written over, so a store takes no changes before a Load has succeeded. It takes
/// none either, until the next start, once it cannot know what the disk holds: when a file has been replaced and the
/// host cannot say that this will last.
class FaultStore : public ErrorReporter {
public:
    struct ByNodeAndNumber {
        bool operator()(const FaultId& a, const FaultId& b) const;
    };
    typedef std::map<FaultId, FaultRecord, ByNodeAndNumber> Faults;

    /// An empty store in `directory`, an absolute path.
    explicit FaultStore(const char* directory);

    /// Creates the directory, or reads the faults that are there. What cannot be read now (no descriptor or memory, an
    /// error of the disk, a list that is missing beside its faults) fails, and all files stay as they are: the next start
    /// may read them. Only what was read and is not whole is reported and set aside, under a name that nothing takes
    /// later: "list.broken", "list.broken.2" and so on. Of a list what was read counts. A fault whose file is missing, or
    /// was set aside, is kept with a text that says so.
    virtual short Load();
    const Faults& All() const { return faults; }
    /// The fault of that name, or null. It belongs to the store.
    const FaultRecord* Find(const FaultId& id) const;
    /// Adds a fault, or replaces the one of its name.
    virtual short Put(const FaultRecord& fault);
    /// Changes the state of a fault of the store.
    virtual short SetState(const FaultId& id, const char* state);
    virtual short Remove(const FaultId& id);
    virtual void dumpOn(std::ostream& out) const;

protected:
    /// The first half of Load: reads the faults and sets nothing aside.
    short Read();
    /// Its second half: sets aside what Read found broken. Once it has succeeded the store takes changes.
    short Mend();
    /// Whether Read found no faults of an earlier start, something broken, or a fault without its record.
    bool IsDamaged() const { return isNew || hasLost || !broken.empty(); }
    /// Whether the disk is known to hold what is in memory, so that the store takes changes.
    bool IsInStep() const { return isInStep; }
    /// Refuses a fault that is one too many.
    short FindRoom(const FaultId& id) const;

private:
    typedef std::set<std::string> Files;

    short Open();
    short ReadList(FaultIdList& saved);
    short ReadRecords(FaultIdList& saved);
    short ReadRecord(const FaultId& id);
    void NoteBroken(const std::string& file);
    short MoveAside() const;
    short Enlist(const FaultId& id);
    short SaveRecord(const FaultRecord& fault);
    short SaveList();
    short Save(const std::string& file, const void* bytes, std::size_t size);
    std::string RecordFile(const FaultId& id) const;
    short Fail(short type, const std::string& what, int error) const;

    const std::string directory;
    const std::string listFile;
    bool isNew;      // no file was seen in the directory
    bool hasLost;    // a fault is without its record
    Files broken;    // what was read and is not whole
    bool isInStep;   // the files are known to hold what is in memory
    FaultIdList ids; // of all faults
    Faults faults;
};

#endif
