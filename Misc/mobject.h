// SPDX-License-Identifier: BSD-2-Clause
// The registry of live objects that is dumped after a crash, and the process's signal handlers.
#ifndef MISC_MOBJECT_H
#define MISC_MOBJECT_H

#include <ostream>

#include "Misc/SafeArray.h"
#include "Misc/export.h"

namespace zeloo {
class Objects;
}

/// The base class of every long-lived object whose state matters after a crash. Each object has a serial number, its
/// tag, and is kept in a registry of the process from its construction to its destruction. The first object to be
/// constructed creates the registry and installs the process's signal handlers:
///
/// - SIGTERM, SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ and SIGXCPU call SigTermProc for every object, in the order
///   of their tags, and end the process with exit(0). After ten seconds it ends without the rest: what the signal
///   interrupted may hold a lock that SigTermProc or exit wants.
/// - SIGABRT, SIGILL, SIGBUS, SIGSEGV, SIGSYS, SIGEMT, SIGFPE, SIGTRAP and SIGUSR2 append a report to the crash file
///   "/var/orv/data/NAME.sig", where NAME is the program's name ("mobject" while that is not known): date, signal,
///   command line, registers, call trace, stack and the dump of every object. A file that has passed 65536 bytes is
///   first moved to the same name with ".old" behind it; it goes on growing where that fails. Then SigTermProc is
///   called for every object, SigRestartProc is called for every object, and the process ends with a core image
///   (SIGABRT). A fault in a dump is skipped. The same signal a second time ends the process at once; so does a crash
///   within 60 seconds of the last report while a dump-state file name is set. These handlers run on a stack of their
///   own, so that an overflow of the stack is reported as well. Beside it "NAME.map" says of every report where the
///   program and its shared objects were loaded, as far as they were known when the last object was constructed: with it
///   the program orvcrash names functions and lines. It is moved along with the crash file.
/// - SIGUSR1 writes the dump of every object to the dump-state file, when one is set, and the program goes on.
///
/// A report is bounded (see SetCaptureLimits); SigTermProc and SigRestartProc have ten seconds in all, then the process
/// ends without them. Nothing but a regular file is opened as the crash file, and no link is followed: a line on standard
/// error says what was found there. A standard output or standard error that would have to wait for its reader leads
/// nowhere from then on. In a program with threads one thread reports, and the others that crash meanwhile wait for the
/// end, as does SIGTERM; a thread's own stack that overflows cannot be reported.
///
/// The dump on SIGUSR1 is made by a copy of the process, which dumpOn may hang, end or damage: the program goes on. The
/// copy has another process id and the descriptors of the process, and what dumpOn changes or leaves in a buffer is lost
/// with it. What keeps the dump of an object from its end, a fault or too long a time, ends the text of that object with
/// a line that says so, and the next follows. As the program may be in the middle of a change that makes a dump fail
/// (memory that is being allocated, an object half built), a dump that fails is made again some milliseconds later, for
/// which the copy sends SIGUSR1 once more, and written as far as it goes only after a second of that. The handler waits
/// for the first attempt alone, and at most a second; a request that comes while one is at work is served after it.
///
/// When the last object dies the handlers stay, and the next first object installs them again. The registry may be used
/// by objects that are constructed before main or destroyed after it. It is made for a process in which one thread at a
/// time constructs and destroys objects.
class ZELOO_API MonitoredObject {
public:
    /// Takes the next tag (0 for the first object of the process; a tag is never used twice) and enters the object
    /// in the registry.
    MonitoredObject();
    /// A copy is a new object: it takes the next tag and is registered like any other.
    MonitoredObject(const MonitoredObject&);
    /// An object keeps its tag and its place in the registry.
    MonitoredObject& operator=(const MonitoredObject&) { return *this; }
    /// Takes the object out of the registry.
    virtual ~MonitoredObject();

    /// The object's tag.
    virtual long myObjectTag();
    /// Writes the object's state for a dump. Called from a signal handler: what it follows may be damaged, and a
    /// fault in it ends the dump of the objects. The default writes "not avail" and a newline.
    virtual void dumpOn(std::ostream& os) const;
    /// Releases what must not outlive the process. Called from a signal handler with the signal that ends the
    /// process. The default does nothing.
    virtual void SigTermProc(int sig);
    /// Prepares a restart of the program after a fault; called when SigTermProc has been called for every object.
    /// The default does nothing.
    virtual void SigRestartProc(int sig);

    /// Gives every signal that the library handles its default action again, for a forked process that is not to
    /// clean up after its parent. The registry stays, and so do the default actions while it does.
    static void UnMonitor();

    /// Names the file for the dump on SIGUSR1; null clears the name. The name is copied.
    static void SetDumpStateFileName(const char* name);
    /// The name of that file, or null; the library's, and valid until the next SetDumpStateFileName.
    static const char* GetDumpStateFileName() { return DumpStateFileName; }

    /// Bounds what a report in the crash file, and a dump on SIGUSR1, may take: `seconds` of time, 60 by default, and
    /// `bytes` of the file, 64 MiB by default. 0 or less stands for the default. What goes beyond is left out, which a
    /// line in the file says.
    static void SetCaptureLimits(long seconds, long bytes);

    /// Writes the tags of the first and the last object, their number, and the dump of every object in the order of
    /// their tags.
    static void DumpState(std::ostream& os);

    /// The debug level of the process, 0 at first. Higher levels make parts of the library print what they do.
    static short debug() { return DebugLevel; }
    /// Sets the debug level of the process.
    static void SetDebugLevel(short level) { DebugLevel = level; }

private:
    friend class zeloo::Objects;

    long ObjectTag;
    MonitoredObject* NextObject; // in the order of the tags
    MonitoredObject* PreviousObject;

    static short DebugLevel;
    static long InstanceCounter;    // the next tag
    static char* DumpStateFileName; // owned
};

template <>
ZELOO_API const char* SafeArray<MonitoredObject>::ElementName();
extern template class SafeArray<MonitoredObject>;

class ZELOO_API MonitoredObjectSafeArray : public SafeArray<MonitoredObject> {
public:
    using SafeArray<MonitoredObject>::SafeArray;
};

class ZELOO_API MonitoredObjectSafeArrayIter : public SafeArrayIter<MonitoredObject> {
public:
    using SafeArrayIter<MonitoredObject>::SafeArrayIter;
};

#endif
