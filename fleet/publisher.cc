// SPDX-License-Identifier: BSD-2-Clause
#include "publisher.h"

#include <algorithm>

#include "message.h"

namespace fleet {

static const int MostChanges = 500;                // in one message
static const std::size_t LargeMessage = 256 << 10; // bytes, from which on a message takes no further change

Publisher::Publisher(Engine& engine, Daemon& daemon, const std::string& node)
    : engine(engine), daemon(daemon), node(node)
{
}

Publisher::Step Publisher::Fail(const std::string& what)
{
    problem = what;
    return Stuck;
}

static std::string ErrorText(short code)
{
    return std::string(ErrorReporter::GetErrorType(code)) + " (" + std::to_string(code) + ")";
}

Publisher::Step Publisher::Run()
{
    problem.clear();
    FaultChangeList list;
    if (!engine.Connect())
        return Fail(engine.Problem());
    if (!FindPosition() || !Fetch(&list))
        return Stuck;
    if (list.changes.empty())
        return Confirm() ? Idle : Stuck;
    return Pass(list) && Confirm() ? PassedOn : Stuck;
}

bool Publisher::FindPosition()
{
    if (knowsPosition)
        return true;
    const Outcome outcome = engine.Last(node, &position);
    knowsPosition = outcome == Outcome::Done || outcome == Outcome::Nothing;
    confirmed = 0;
    if (!knowsPosition)
        problem = engine.Problem();
    return knowsPosition;
}

// Asks the daemon for what has not been passed on. Of a journal that is another than before, that is all it has.
bool Publisher::Fetch(FaultChangeList* list)
{
    for (;;) {
        ChangesRequest request;
        request.since = position.number;
        request.most = MostChanges;
        Buffer question, answer;
        Pack(request, question);
        const short status = daemon.Ask(ChangesEvent, question, answer);
        if (status != ErrorReporter::NO_ERRORS) {
            problem = "the daemon's changes: " + ErrorText(status);
            return false;
        }
        if (!Unpack(answer, *list)) {
            problem = "the daemon's answer cannot be read";
            return false;
        }
        const std::string journal(list->journal);
        if (journal == position.journal)
            break;
        position.journal = journal;
        position.number = 0;
        confirmed = 0;
    }
    if (list->last >= position.number)
        return true;
    problem = "the journal ends at " + std::to_string(list->last) + ", and " + std::to_string(position.number) +
              " of it has been passed on: it is an old copy; a new one begins when its directory is removed";
    return false;
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
        if (!Settle(outcome))
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
        if (!Settle(engine.PublishOnce(subject, bytes + at, size)))
            return false;
        at += size;
    }
    return true;
}

// Whether an operation was done. Where it is not known, what the engine has is asked anew.
bool Publisher::Settle(Outcome outcome)
{
    if (outcome == Outcome::Done)
        return true;
    knowsPosition = false;
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
