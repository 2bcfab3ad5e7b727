// SPDX-License-Identifier: BSD-2-Clause
#include "lease.h"

#include <algorithm>

namespace fleet {

Lease::Lease(Engine& engine, const std::string& key, const std::string& holder)
    : engine(engine), holder(holder), subject(KeySubject(CentreBucket, key))
{
}

bool Lease::FindLifetime()
{
    jsStreamInfo* info = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status =
        js_GetStreamInfo(&info, engine.Streams(), BucketStream(CentreBucket).c_str(), nullptr, &code);
    if (status == NATS_OK)
        lifetime = std::chrono::nanoseconds(info->Config->MaxAge);
    jsStreamInfo_Destroy(info);
    engine.Note(std::string("the bucket ") + CentreBucket, status == NATS_NOT_FOUND ? NATS_ERR : status, code);
    return lifetime > Clock::duration::zero();
}

// Stores the holder in the place of what it has stored last, or of nothing. Of nothing only when there seems to be nothing:
// see HasValue.
Outcome Lease::Take()
{
    bool hasHolder = false;
    Outcome outcome = revision == 0 ? HasValue(engine, CentreBucket, subject, &hasHolder) : Outcome::Done;
    if (outcome != Outcome::Done || hasHolder)
        return outcome == Outcome::Done ? Outcome::Passed : outcome;
    Write write;
    write.subject = subject;
    write.bytes = holder.data();
    write.size = holder.size();
    write.expected = revision;
    outcome = Store(engine, write);
    if (outcome == Outcome::Done) {
        taken += revision == 0;
        revision = write.revision;
    }
    return outcome;
}

bool Lease::Hold()
{
    const Clock::time_point now = Clock::now();
    if (revision != 0 && now - held >= lifetime)
        revision = 0;
    if (Rest() > 0)
        return revision != 0;
    asked = now;
    hasFailed = true;
    if (lifetime == Clock::duration::zero() && !FindLifetime())
        return false;
    const Outcome outcome = Take();
    hasFailed = outcome != Outcome::Done && outcome != Outcome::Passed;
    if (outcome == Outcome::Done)
        held = now; // it was not stored before
    else if (outcome == Outcome::Passed)
        revision = 0;
    return revision != 0 && Clock::now() - held < lifetime;
}

long Lease::Rest() const
{
    if (lifetime == Clock::duration::zero() && asked == Clock::time_point())
        return 0;
    const Clock::duration interval = lifetime == Clock::duration::zero()
                                         ? std::chrono::seconds(1)
                                         : std::min<Clock::duration>(lifetime / 3, std::chrono::seconds(3));
    const auto rest = std::chrono::duration_cast<std::chrono::milliseconds>(asked + interval - Clock::now());
    return std::max<long>(0, static_cast<long>(rest.count()));
}

void Lease::Release()
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = 1000; // it lapses of itself
    if (revision != 0)   // that value, and none that another centre has stored
        js_DeleteMsg(engine.Streams(), BucketStream(CentreBucket).c_str(), revision, &options, nullptr);
    revision = 0;
}

} // namespace fleet
