// SPDX-License-Identifier: BSD-2-Clause
// Which of the centres works.
#ifndef FLEET_LEASE_H
#define FLEET_LEASE_H

#include <chrono>
#include <string>

#include "bucket.h"

namespace fleet {

/// A key of the bucket of the centres, which one of them has at a time, for as long as it goes on renewing it: a third of
/// the lifetime of the bucket's values is between two renewals. It saves work that would be done twice, and no more: a
/// process that was stopped may go on in the belief that it has it still.
class Lease {
public:
    Lease(Engine& engine, const std::string& key, const std::string& holder);

    /// Takes or renews the lease when it is time to. Whether it is held.
    bool Hold();
    /// Whether the engine failed when it was asked last.
    bool Failed() const { return hasFailed; }
    /// How often it has been taken: tells whether it was lost meanwhile.
    long Taken() const { return taken; }
    /// Milliseconds until Hold() has something to do.
    long Rest() const;
    /// Gives it to whoever wants it.
    void Release();

private:
    typedef std::chrono::steady_clock Clock; // goes on while the process is stopped

    bool FindLifetime();
    Outcome Take();

    Engine& engine;
    const std::string holder;
    const std::string subject;
    Clock::duration lifetime = Clock::duration::zero(); // zero: not known yet
    Clock::time_point asked;                            // when it was tried last
    Clock::time_point held;                             // when it was taken or renewed last
    uint64_t revision = 0;                              // 0: it is not held
    bool hasFailed = false;
    long taken = 0;
};

} // namespace fleet

#endif
