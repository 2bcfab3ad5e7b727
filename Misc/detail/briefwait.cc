#include "Misc/detail/briefwait.h"

#include <ctime>

#include <sched.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: briefwait.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int64_t Longest = 50 * 1000; // nanoseconds
static const int64_t PauseFactor = 100;   // how often the time lost must go by

namespace zeloo {

static int64_t pauseEnd = 0;

static int64_t NanosecondsNow()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

BriefWait::BriefWait() : start(NanosecondsNow()) {}

bool BriefWait::GivesWay()
{
    if (hasBegun ? NanosecondsNow() - start >= Longest : start < pauseEnd)
        return false;
    hasBegun = true;
    sched_yield();
    return true;
}

BriefWait::~BriefWait()
{
    if (!hasBegun)
        return;
    const int64_t now = NanosecondsNow();
    if (now - start >= Longest)
        pauseEnd = now + PauseFactor * (now - start);
}

} // namespace zeloo
