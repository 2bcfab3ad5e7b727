// SPDX-License-Identifier: BSD-2-Clause
#include "publisher.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

#include "message.h"

namespace fleet {

static const int MostChanges = 500;                // in one message
static const std::size_t LargeMessage = 256 << 10; // bytes, from which on a message takes no further change

Publisher::Publisher(Engine& engine, Daemon& daemon, const std::string& node)
    : engine(engine), daemon(daemon), node(node)
{
}

bool Publisher::Fail(const std::string& what)
{
    problem = what;
    return false;
}

static std::string ErrorText(short code)
{
    return std::string(ErrorReporter::GetErrorType(code)) + " (" + std::to_string(code) + ")";
}

Publisher::Step Publisher::Run()
{
    problem.clear();
    FaultChangeList list;
    if (Take(&list) && Pass(list) && Confirm())
        return list.changes.empty() ? Idle : PassedOn;
    knowsPosition = false; // what was asked of engine or daemon may not hold any more
    return Stuck;
}

// Finds what is to be passed on. Before it says that changes are missing it asks the engine anew, in which another gate may
// have stored them, and of which a server may lag.
bool Publisher::Take(FaultChangeList* list)
{
    if (!engine.Connect())
        return Fail(engine.Problem());
    const bool wasKnown = knowsPosition;
    if (FindPosition() && Fetch(list))
        return true;
    if (!isMissing)
        return false;
    if (!wasKnown)
        sleep(1);
    knowsPosition = false;
    return FindPosition() && Fetch(list);
}

bool Publisher::FindPosition()
{
    isMissing = false;
    if (knowsPosition)
        return true;
    isSettled = isSettled || engine.Settle(node) == Outcome::Done; // a gate before may have sent something, too
    if (!isSettled)
        return Fail(engine.Problem());
    Buffer stored;
    const Outcome outcome = engine.Last(node, &position, &stored);
    confirmed = 0;
    if (outcome != Outcome::Done && outcome != Outcome::Nothing)
        return Fail(engine.Problem());
    knowsPosition = outcome == Outcome::Nothing || Agrees(stored);
    return knowsPosition;
}

static bool AreEqual(FaultChange& a, FaultChange& b)
{
    Buffer first, second;
    PackChange(a, first);
    PackChange(b, second);
    return first.Size() == second.Size() &&
           std::memcmp(static_cast<const void*>(first), static_cast<const void*>(second), first.Size()) == 0;
}

static const char OldCopy[] = "it is an old copy; a new one begins when its directory is removed";

// Whether the last change that was passed on is what the journal has under its number, if it still has that. An old copy
// of the journal that has grown since has another there: it cannot have lost what is not known to be passed on.
bool Publisher::Agrees(Buffer& stored)
{
    std::vector<FaultChange> changes;
    if (!UnpackChanges(stored, &changes) || changes.empty() || changes.back().number != position.number)
        return Fail("the last message of " + node + " in the engine is not one of a gate");
    FaultChangeList list;
    if (!Ask(position.number - 1, 1, &list))
        return false;
    const std::string journal(list.journal);
    return journal != position.journal || list.changes.empty() || list.changes[0].number != position.number ||
           AreEqual(list.changes[0], changes.back()) ||
           Fail("change " + std::to_string(position.number) +
                " of the journal is another than the one that has been passed on: " + OldCopy);
}

bool Publisher::Ask(long since, int most, FaultChangeList* list)
{
    ChangesRequest request;
    request.since = since;
    request.most = most;
    Buffer question, answer;
    Pack(request, question);
    const short status = daemon.Ask(ChangesEvent, question, answer);
    if (status != ErrorReporter::NO_ERRORS)
        return Fail("the daemon's changes: " + ErrorText(status));
    return Unpack(answer, *list) || Fail("the daemon's answer cannot be read");
}

// Asks the daemon for what has not been passed on. Of a journal that is another than before, that is all it has.
bool Publisher::Fetch(FaultChangeList* list)
{
    for (;;) {
        if (!Ask(position.number, MostChanges, list))
            return false;
        const std::string journal(list->journal);
        if (journal == position.journal)
            break;
        position.journal = journal;
        position.number = 0;
        confirmed = 0;
    }
    if (list->last < position.number)
        return Fail("the journal ends at " + std::to_string(list->last) + ", and " + std::to_string(position.number) +
                    " of it has been passed on: " + OldCopy);
    return Follow(list);
}

// Whether the changes follow the last one that was passed on. Where some are missing, those up to the next Began do not
// count.
bool Publisher::Follow(FaultChangeList* list)
{
    const std::vector<FaultChange>& changes = list->changes;
    if (changes.empty() || changes[0].number == position.number + 1)
        return true;
    while (!changes.empty()) {
        const auto began = std::find_if(changes.begin(), changes.end(),
                                        [](const FaultChange& change) { return change.kind == FaultChange::Began; });
        if (began == changes.begin())
            return true;
        if (!Ask(began == changes.end() ? changes.back().number : began->number - 1, MostChanges, list))
            return false;
    }
    isMissing = true;
    return Fail("the journal has no change " + std::to_string(position.number + 1) +
                ", which should be the next: somebody else has removed it, or the engine has lost it or lags behind");
}

bool Publisher::Pass(FaultChangeList& list)
{
    Buffer message;
    for (FaultChange& change : list.changes) {
        if (!PassAttachment(change))
            return false;
        PackChange(change, message);
        if (message.Size() < LargeMessage && &change != &list.changes.back())
            continue;
        Position next = position;
        next.number = change.number;
        const Outcome outcome = engine.Publish(node, message, &next);
        isSettled = outcome != Outcome::Away;
        if (!Check(outcome))
            return false;
        position = next;
        message.PurgeContents();
    }
    return true;
}

// The pieces of an attachment go before the change that tells of it.
bool Publisher::PassAttachment(const FaultChange& change)
{
    const Buffer& attachment = change.fault.attachment;
    const char* bytes = static_cast<const char*>(static_cast<const void*>(attachment));
    for (unsigned at = 0, index = 0; change.kind == FaultChange::Raised && at < attachment.Size(); index++) {
        const unsigned size = std::min(attachment.Size() - at, PieceSize);
        const std::string subject = PieceSubject(node, position.journal, change.number, index);
        if (!Check(engine.PublishPiece(subject, bytes + at, size)))
            return false;
        at += size;
    }
    return true;
}

bool Publisher::Check(Outcome outcome)
{
    if (outcome == Outcome::Done)
        return true;
    problem = outcome == Outcome::Passed ? "another gate passes the changes of " + node + " on" : engine.Problem();
    return false;
}

// Tells the daemon what need not be kept any more.
bool Publisher::Confirm()
{
    if (position.number == confirmed)
        return true;
    ChangesDone done;
    done.number = position.number;
    Buffer request, answer;
    Pack(done, request);
    const short status = daemon.Ask(ChangesDoneEvent, request, answer);
    if (status != ErrorReporter::NO_ERRORS) {
        problem = "the daemon does not take what has been passed on: " + ErrorText(status);
        return false;
    }
    confirmed = position.number;
    return true;
}

} // namespace fleet
