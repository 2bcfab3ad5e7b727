// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/briefwait.h"

#include <algorithm>
#include <ctime>

#include <sched.h>

[[maybe_unused]] static const char* ModuleId() { return "$Id: briefwait.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// Nanoseconds.
static const int64_t Longest = 50 * 1000;
static const int64_t Gain = 2 * 1000;               // about what it costs to sleep and to be woken
static const int64_t MostGained = 10 * 1000 * 1000; // and what a process begins with: it can't know yet what pays

static const int64_t PauseFactor = 100; // how often the time lost must go by

namespace svr4 {

static int64_t gained = MostGained;
static int64_t pauseEnd = 0;

static int64_t NanosecondsOf(clockid_t clock)
{
    struct timespec now;
    clock_gettime(clock, &now);
    return int64_t(now.tv_sec) * 1000000000 + now.tv_nsec;
}

static int64_t NanosecondsNow() { return NanosecondsOf(CLOCK_MONOTONIC); }

int64_t LastTick() { return NanosecondsOf(CLOCK_MONOTONIC_COARSE); }

bool BriefWait::GivesWay()
{
    const int64_t now = NanosecondsNow();
    if (start == 0 ? now < pauseEnd : now - start >= Longest)
        return false;
    if (start == 0)
        start = now;
    sched_yield();
    return true;
}

BriefWait::~BriefWait()
{
    if (start == 0)
        return;
    const int64_t now = NanosecondsNow();
    const int64_t length = now - start;
    if (length < Longest) {
        gained = std::min(gained + Gain, MostGained);
        return;
    }
    gained -= length;
    if (gained < 0) {
        pauseEnd = now - PauseFactor * gained;
        gained = 0;
    }
}

} // namespace svr4
