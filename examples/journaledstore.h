// SPDX-License-Identifier: BSD-2-Clause
// The faults of a daemon with a journal of their changes.
#ifndef EXAMPLES_JOURNALEDSTORE_H
#define EXAMPLES_JOURNALEDSTORE_H

#include <ostream>

#include "faultjournal.h"
#include "faultstore.h"

/// A store each change of which is first in `journal` and then in its own files. A change that either cannot take is
/// refused, and is in neither of them.
///
/// A crash may come between the two. So a start does the newest change of the journal again, which has no effect when it
/// is in the store. Where the changes cannot make the faults that there are, since the journal is new, has been left out
/// by a start without it, or has been damaged like the store itself, the start appends all faults to it anew.
class JournaledStore : public FaultStore {
public:
    /// `journal`, which is not loaded yet, must outlive the store.
    JournaledStore(const char* directory, FaultJournal& journal) : FaultStore(directory), journal(journal) {}

    short Load() override;
    short Put(const FaultRecord& fault) override;
    short SetState(const FaultId& id, const char* state) override;
    short Remove(const FaultId& id) override;
    void dumpOn(std::ostream& out) const override;

private:
    short Redo();
    short Snapshot();
    short Settle(short status);

    FaultJournal& journal;
};

#endif
