// SPDX-License-Identifier: BSD-2-Clause
#include "cleaner.h"

#include "clock.h"

namespace fleet {

Cleaner::Cleaner(Engine& engine, long keepSeconds) : engine(engine), keep(keepSeconds * Second), begun(Now()) {}

void Cleaner::Done(const std::string& node, uint64_t sequence)
{
    if (sequence > 1) // the engine takes "before the first" for "all"
        done[node] = sequence;
}

bool Cleaner::Purge(const std::string& subject, uint64_t before)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    options.Stream.Purge.Subject = subject.c_str();
    options.Stream.Purge.Sequence = before;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_PurgeStream(engine.Streams(), StreamName, &options, &code);
    return engine.Note("to remove " + subject, status, code) == Outcome::Done;
}

// Not at once: to remove many changes of a host takes no longer than one.
bool Cleaner::Run()
{
    const int64_t now = Now();
    if (round.empty() && (now - begun >= keep || now < begun)) {
        round.swap(waits);
        waits.swap(done);
        begun = now;
    }
    for (const Turn turn; !round.empty() && !turn.IsOver(); round.erase(round.begin()))
        if (!Purge(ChangeSubject(round.begin()->first), round.begin()->second))
            return false;
    return !round.empty();
}

} // namespace fleet
