// SPDX-License-Identifier: BSD-2-Clause
// The scenario of the fault daemon: its handlers with its store, in this process.
#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "examples/faultserver.h"
#include "examples/journaledstore.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;

namespace failures_testing {

namespace {

// The server without its loop: events are handed to its handlers.
class Handlers : public FaultServer {
public:
    explicit Handlers(FaultStore& store, FaultJournal* journal = nullptr) : FaultServer(store, 3, "none", journal) {}

    template <class Object>
    short Handle(short event, const Object& object)
    {
        CurrentEvent = event;
        CurrentEventData.PurgeContents();
        errno = 0;
        Pack(object, CurrentEventData);
        CurrentEventResponseRqd = 0;
        return errno == ENOMEM ? static_cast<short>(OUT_OF_MEMORY) : HandleEvent(event);
    }
};

// What the disk must hold at the next start: that is known after each change that succeeded.
enum Known { Unknown, Absent, New, Working };
struct OnDisk {
    bool hasKept = false; // the fault that every run leaves alone
    Known changing = Unknown;
};

} // namespace

static const char KeptText[] = "kept";

static FaultRecord Record(long number, const char* text)
{
    FaultRecord fault;
    fault.summary.hdr.myId = FaultId(number, "alpha");
    fault.summary.text = text;
    fault.attachment.Append("attached");
    fault.summary.attached = 8;
    return fault;
}

static bool IsIn(const FaultStore& store, const FaultId& id, Known state)
{
    const FaultRecord* fault = store.Find(id);
    if (fault == nullptr || state == Absent)
        return fault == nullptr && state == Absent;
    return fault->attachment.Size() == 8 && fault->summary.state == (state == New ? FirstFaultState : "working");
}

// What a start has read is what the last run said that it kept. A record that was reported missing, since the host said
// so, is known by its name only.
static void CheckLoaded(const OnDisk& disk, const FaultStore& store, const FaultId& kept, const FaultId& changed,
                        bool isReported)
{
    const FaultRecord* fault = store.Find(kept);
    if (disk.hasKept)
        CHILD_CHECK(fault != nullptr);
    if (disk.hasKept && !isReported)
        CHILD_CHECK(fault->summary.text == KeptText && fault->attachment.Size() == 8);
    if (disk.changing != Unknown && !isReported)
        CHILD_CHECK(IsIn(store, changed, disk.changing));
    CHILD_CHECK(store.All().size() <= 2);
}

// Notes what an event says that it did. True when it succeeded: then it is so in memory, too.
static bool Note(OnDisk& disk, short status, const FaultStore& store, const FaultId& id, Known after)
{
    disk.changing = status == ErrorReporter::NO_ERRORS ? after : Unknown;
    if (status == ErrorReporter::NO_ERRORS)
        CHILD_CHECK(IsIn(store, id, after));
    return status == ErrorReporter::NO_ERRORS;
}

// Starts with the store, and has the server handle events on it.
static bool Serve(OnDisk& disk, FaultStore& store, FaultJournal* journal)
{
    static const FaultRecord kept = Record(100, KeptText), changed = Record(1, "changed");
    static const FaultId keptId = kept.summary.hdr.myId, id = changed.summary.hdr.myId;
    static const FaultMove move = {id, "working"};
    const int reports = ErrorReporter::GetErrorCount();
    if (store.Load() != ErrorReporter::NO_ERRORS) {
        CHILD_CHECK(ErrorReporter::GetErrorCount() > reports);
        return false;
    }
    CheckLoaded(disk, store, keptId, id, ErrorReporter::GetErrorCount() > reports);
    if (journal != nullptr)
        journal->Remove(journal->Newest()); // what a run that failed has not cut would pile up
    Handlers server(store, journal);
    if (!server.InBasket().Created())
        return false;
    if (!disk.hasKept)
        disk.hasKept = server.Handle(RaiseEvent, kept) == ErrorReporter::NO_ERRORS;
    bool isWhole = Note(disk, server.Handle(RaiseEvent, changed), store, id, New);
    isWhole &= store.Find(id) != nullptr && Note(disk, server.Handle(MoveEvent, move), store, id, Working);
    for (const short event : {FetchEvent, MovesEvent})
        isWhole &= server.Handle(event, keptId) == ErrorReporter::NO_ERRORS;
    for (const short event : {ListEvent, StatusEvent})
        isWhole &= server.Handle(event, FaultId()) == ErrorReporter::NO_ERRORS;
    isWhole &= store.Find(id) != nullptr && Note(disk, server.Handle(ClearEvent, id), store, id, Absent);
    if (journal != nullptr) {
        isWhole &= server.Handle(ChangesEvent, ChangesRequest{0, 100}) == ErrorReporter::NO_ERRORS;
        isWhole &= server.Handle(ChangesDoneEvent, ChangesDone{journal->Newest()}) == ErrorReporter::NO_ERRORS;
    }
    return isWhole && disk.hasKept;
}

bool Faults(const std::string& directory)
{
    static OnDisk disk;
    FaultStore store(PathIn(directory, "faults"));
    return Serve(disk, store, nullptr);
}

// The journal goes on over all runs: no number is given twice.
bool JournaledFaults(const std::string& directory)
{
    static OnDisk disk;
    static long newest = 0;
    FaultJournal journal(PathIn(directory, "journal"));
    JournaledStore store(PathIn(directory, "journaled"), journal);
    const bool isWhole = Serve(disk, store, &journal);
    if (isWhole)
        CHILD_CHECK(journal.Newest() > newest);
    newest = std::max(newest, journal.Newest());
    return isWhole;
}

static const char Garbage[] = "garbage";

static bool HasGarbage(const char* file)
{
    char text[sizeof Garbage] = "";
    const int fd = open(file, O_RDONLY | O_CLOEXEC);
    const ssize_t n = fd < 0 ? -1 : read(fd, text, sizeof text);
    if (fd >= 0)
        close(fd);
    return n == sizeof Garbage - 1 && std::memcmp(text, Garbage, sizeof Garbage - 1) == 0;
}

static bool WriteGarbage(const char* file)
{
    const int fd = open(file, O_WRONLY | O_TRUNC | O_CLOEXEC);
    const bool isWritten = fd >= 0 && write(fd, Garbage, sizeof Garbage - 1) == sizeof Garbage - 1;
    if (fd >= 0)
        close(fd);
    return isWritten;
}

// A start that finds a broken record sets it aside, or leaves all as it is.
bool BrokenFaults(const std::string& directory)
{
    static const FaultRecord kept = Record(100, KeptText), broken = Record(1, "to be broken");
    static bool isBroken = false; // the last run broke a record, of which nothing may be lost
    const PathIn path(directory, "broken"), file(directory, "broken/alpha%2F00000001"),
        aside(directory, "broken/alpha%2F00000001.broken"), second(directory, "broken/alpha%2F00000001.broken.2");
    if (isBroken && nothingFails)
        CHILD_CHECK(HasGarbage(file) || HasGarbage(aside) || HasGarbage(second));
    isBroken = false;
    unlink(aside);
    unlink(second);
    {
        FaultStore store(path);
        if (store.Load() != 0 || store.Put(kept) != 0 || store.Put(broken) != 0)
            return false;
    }
    isBroken = WriteGarbage(file);
    FaultStore store(path);
    const bool isLoaded = store.Load() == 0;
    const FaultRecord* fault = store.Find(kept.summary.hdr.myId);
    if (isLoaded)
        CHILD_CHECK(fault != nullptr && store.All().size() == 2);
    return isBroken && isLoaded && fault->summary.text == KeptText;
}

} // namespace failures_testing
