// SPDX-License-Identifier: BSD-2-Clause
// The changes of a daemon's faults, numbered, on disk, for who passes them on.
#ifndef EXAMPLES_FAULTJOURNAL_H
#define EXAMPLES_FAULTJOURNAL_H

#include <cstddef>
#include <map>
#include <ostream>
#include <set>
#include <string>

#include "Misc/Error.h"
#include "Misc/cstring.h"

#include "fault.h"

/// Changes of faults in a directory, each in a file whose name is its number in 20 digits, and which is there whole or not
/// at all, whatever happens. The numbers go up by one, over restarts too: the newest file, which is never removed, tells
/// the last. Beside them the file "name" has the name of the journal, and the file "step" says that the changes from
/// the last Began on make the faults that there are, but for the newest change, which a crash may have kept from them.
/// Other files mean nothing.
///
/// Operations return an ErrorType, 0 for success; one that fails is reported and changes nothing. A journal takes no
/// changes before a Load has succeeded, and none until the next start once it is out of step: when the newest file is of
/// a change that did not happen, and cannot be removed. That change is given to nobody.
class FaultJournal : public ErrorReporter {
public:
    /// The journal in `directory`, an absolute path. Nothing is read or made yet.
    explicit FaultJournal(const char* directory);

    /// Creates the directory, or reads all changes that are there. What cannot be read now fails. What was read and is
    /// not whole is reported, given to nobody, and stays until EndSnapshot.
    short Load();
    /// Whether the changes make the faults that there are: the file "step" was there, and nothing was broken.
    bool IsInStep() const { return hasStep && !isDamaged; }
    /// Says that they don't, which lasts until EndSnapshot. Needs no Load, and no journal.
    short LoseStep();
    /// Appends a Began: the caller then appends a Raised for each fault that is there, and calls EndSnapshot. A snapshot
    /// without an end is made anew at the next start.
    short BeginSnapshot();
    /// Says that the changes make the faults that there are, and sets aside what was broken.
    short EndSnapshot();

    /// Appends a change. It is on the disk when this returns. A change that is too large for an answer is refused.
    short Append(FaultChange::Kind kind, const FaultRecord& fault);
    /// Removes the newest change, which did not happen. Where that fails it is withheld.
    void TakeBack();
    /// Leaves the newest change, of which nobody can say whether it happened, for the next start; the journal is out of
    /// step until then.
    void Withhold();

    /// The number of the newest change; 0 when there is none.
    long Newest() const { return sizes.empty() ? 0 : sizes.rbegin()->first; }
    /// Reads a change that is there.
    short Read(long number, FaultChange& change) const;
    /// The changes that were asked for, as many as fit into an answer of 4 MB, and 1000 at most; the first one is always
    /// among them. Those that have been removed are missing.
    short List(const ChangesRequest& request, FaultChangeList& list) const;
    /// Removes the changes up to `number`, but for the newest. INVALID_DATA, without a report, when there is no such
    /// number yet.
    short Remove(long number);
    void dumpOn(std::ostream& out) const;

private:
    enum Found { Whole, Broken, Unreadable };

    short Open(std::set<long>& numbers);
    short ReadName();
    short ReadChanges(const std::set<long>& numbers);
    short ReadStep();
    short WriteName();
    Found ReadChange(long number, FaultChange& change, std::size_t& size, short& status) const;
    short SetBrokenAside();
    short Save(const std::string& file, const Buffer& data);
    std::string ChangeFile(long number) const;
    short Fail(short type, const std::string& what, int error) const;

    const std::string directory;
    const std::string nameFile;
    const std::string stepFile;
    CString name;
    std::map<long, std::size_t> sizes; // in bytes, of the changes that are there, by number
    std::set<std::string> broken;      // files that were read and are not whole
    long counter;                      // the highest number that a file has
    bool hasStep;
    bool isDamaged; // a change or the name is broken or missing
    bool isTaking;  // changes
};

#endif
