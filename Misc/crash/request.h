// SPDX-License-Identifier: BSD-2-Clause
// The dump of every object on request, while the program runs.
#ifndef MISC_CRASH_REQUEST_H
#define MISC_CRASH_REQUEST_H

namespace zeloo {

/// Makes what DumpOnRequest writes with.
void MakeReadyForRequest();

/// In the handler of `sig`, with all signals blocked: sees to it that the dump of every object is written to the
/// dump-state file, when one is named. Returns when it is, when it has to be made later, or after a second.
void DumpOnRequest(int sig);

/// Takes note of the end of a dump that DumpOnRequest did not wait for. Costs nothing while there is none.
void CollectDump();

} // namespace zeloo

#endif
