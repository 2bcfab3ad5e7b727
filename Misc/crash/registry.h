// SPDX-License-Identifier: BSD-2-Clause
// The live objects, as the dumps and the handlers see them.
#ifndef MISC_CRASH_REGISTRY_H
#define MISC_CRASH_REGISTRY_H

#include "Misc/mobject.h"

namespace zeloo {

/// The list of the live objects in the order of their tags. Every change of it is one store for who walks forward, so
/// that a handler finds it whole between any two instructions; nothing holds signals back for it.
class Objects {
public:
    /// A walk over the objects there are at its beginning, which may come and go meanwhile: each is given once if it is
    /// still there, and new ones are not given. Walks nest.
    class Walk {
    public:
        Walk();
        ~Walk() { innermost = outer; }
        Walk(const Walk&) = delete;
        Walk& operator=(const Walk&) = delete;
        /// The next object, or null at the end.
        MonitoredObject* Next();

    private:
        friend class Objects;
        MonitoredObject* next;
        const long end; // the tag of the first object that is new
        Walk* const outer;
        static Walk* innermost;
    };

    static void Add(MonitoredObject* object);
    static void Remove(MonitoredObject* object);
    /// Forgets the walks of the code that a handler interrupted. For handlers that do not return, and for copies of the
    /// process.
    static void ForgetWalks() { Walk::innermost = nullptr; }
    /// The same, and puts in order what that code may have left half changed, before the objects may change more.
    static void TakeOver();
    /// Calls `operation` for every object of a walk.
    static void ForEach(void (MonitoredObject::*operation)(int), int sig);

    /// The tag of the object with `number` objects before it, or -1; the object is not asked.
    static long TagOf(long number);

    /// The parts of MonitoredObject::DumpState: up to the first object (false when there is none), one object, the end
    /// of one object, and the last line.
    static bool DumpHeading(std::ostream& os);
    static void DumpObject(MonitoredObject* object, std::ostream& os);
    static void DumpEndOfObject(long tag, std::ostream& os);
    static void DumpEnd(std::ostream& os);

private:
    static MonitoredObject* first;
    static MonitoredObject* last;
};

} // namespace zeloo

#endif
