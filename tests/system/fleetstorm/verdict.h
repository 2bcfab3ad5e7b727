// SPDX-License-Identifier: BSD-2-Clause
// What a storm of a fleet comes to: what was asked of the hosts, held against the stream and the centres.
#ifndef TESTS_SYSTEM_FLEETSTORM_VERDICT_H
#define TESTS_SYSTEM_FLEETSTORM_VERDICT_H

#include "tests/system/fleetstorm/shared.h"

namespace fleetstorm {

struct Verdict {
    uint64_t changes = 0; // that the hosts made: as many has the stream to have
    uint64_t seen = 0;    // of these, in the stream
    uint64_t lost = 0;    // not in the stream, or not what a centre shows in the end
    uint64_t doubled = 0; // there more than once
    uint64_t order = 0;   // behind a later one
    uint64_t strange = 0; // what nobody asked for
    uint64_t faults = 0;  // that there are in the end
    uint64_t wrong = 0;   // of these, at the centres: not as their hosts have them; part of `lost`
};

/// Looks at all that is known. With `isTold`, each fault is said on standard error.
Verdict Judge(const Settings& settings, bool isTold);

} // namespace fleetstorm

#endif
