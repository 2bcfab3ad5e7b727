// SPDX-License-Identifier: BSD-2-Clause
// One command run as a child process, with time limits and rules for its end.
#ifndef MISC_UNIXPROC_H
#define MISC_UNIXPROC_H

#include "Misc/Error.h"
#include "Misc/SafeArray.h"
#include "Misc/buffer.h"
#include "Misc/cstring.h"
#include "Misc/export.h"
#include "Misc/mobject.h"

namespace zeloo {
class ChildLimit;
}

/// The role of a side after a fork.
enum coprocess_types { failP = 0, parentP = 1, childP = 2 };

/// One command, run as a child process. The constructor starts it, and by then has either captured its standard
/// output, waited for its end or left it running; the destructor terminates it, waits for it or leaves it alone.
///
/// A command is an argument vector, whose first element is looked up on the PATH, or a text for "/sbin/sh -c". The
/// child leads a session and a process group of its own, so that its whole group can be signalled with the negated
/// process id. It ignores SIGCLD and has default dispositions for the signals that MonitoredObject handles.
///
/// A command that cannot be executed is reported by the child (WARNING, EXEC_FAILED) on its standard error and then
/// ends with status 0, as an empty shell command does. The report has the layout of an ErrorReporter's, but is the child's
/// alone: the error state and the streams of this process stay as they are. A fork or pipe that fails is reported
/// (WARNING, FORK_FAILED or OPENING_PIPE) and leaves an object with the process id -1 and the exit status -1; so does a
/// pipe that cannot be put into place in the child.
///
/// A start costs the same whatever the size of this process, which stands still until the command is being executed: the
/// child shares its memory until then. No handlers set with pthread_atfork run.
///
/// Time limits are in seconds. A limit of 0 stands for GlobalUnixProcessMaxWaitTime, and when that is 0 too there is
/// none. A child that outlives the limit is killed with SIGKILL but not waited for, which is reported (WARNING,
/// WAIT_TIME_EXCEEDED). Any other signal that interrupts the waiting counts as the end of the limit. While a limit
/// runs the process's alarm is in use; the caller's alarm goes on afterwards with the time that remained on it at the
/// start. The dispositions of SIGALRM and SIGCLD are restored after each wait. Not for use in signal handlers, except
/// for SigTermProc.
///
/// Only the process that made the object ends its child of its own accord: in a forked process, which may be a daemon
/// (see daemonize), the destructor and SigTermProc leave the child alone. What wait and terminate are called for they
/// do in every process.
class ZELOO_API UnixProcess : public ErrorReporter, public MonitoredObject {
public:
    /// What becomes of the child.
    enum ctor_dtor_flag : int {
        terminate_at_destruction = 10,   ///< the destructor sends it SIGTERM
        wait_at_destruction = 20,        ///< the destructor waits for it
        leave_alone_at_destruction = 30, ///< the destructor does nothing
        wait_at_construction = 40        ///< the constructor waits for it; the destructor does nothing
    };

    /// Starts the null-terminated vector `argv`, with the descriptors 3 to 59 closed in the child. REQUIRES: `argv`
    /// is not null.
    explicit UnixProcess(const char** argv, ctor_dtor_flag cd_f = terminate_at_destruction, long maxtime = 0);
    /// The same for the vector "/sbin/sh", "-c", `Cmd`.
    explicit UnixProcess(const char* Cmd, ctor_dtor_flag cd_f = terminate_at_destruction, long maxtime = 0);
    /// Runs `argv` to its end with its standard output, zero bytes included, in place of the contents of `Output`.
    /// When the limit runs out, also while the child writes without end or after it has closed its output, `Output`
    /// holds what came until then, followed by a line that says so. Output beyond the bound set by SetGlobalMaxOutput
    /// is left out, with a line that tells how much; so is what finds no memory, and what comes behind that, and what a
    /// Buffer cannot hold. The destructor leaves the child alone. No descriptors are closed in the child, and its
    /// standard error is the caller's. REQUIRES: `argv` is not null.
    UnixProcess(const char** argv, Buffer& Output, long maxtime = 0);
    /// The same for the vector "/sbin/sh", "-c", `Cmd`.
    UnixProcess(const char* Cmd, Buffer& Output, long maxtime = 0);
    /// Another handle on the child of `p`, whose destructor leaves the child alone. The exit status is not copied.
    UnixProcess(UnixProcess& p);
    UnixProcess& operator=(const UnixProcess&) = delete;
    /// Acts on the ctor_dtor_flag, in the process that made the object. A flag that is none of the four is named on
    /// standard output and then counts as wait_at_destruction.
    ~UnixProcess() override;

    /// The exit code of the child, 0 to 255, for which the first call waits; 0 for a child that a signal ended. -1
    /// when there is no child, when it was killed because the limit ran out, or when the system does not tell. Later
    /// calls return the same value at once.
    short wait();
    /// Sends SIGTERM to the child, unless wait() or the capture has found its end or has killed it, after which its
    /// process id may be another's; and forgets the id: pid() is -1 from then on. Does not wait.
    void terminate();
    /// Whether the process id of the child is in use; true also for a child that has ended but was not waited for.
    short exists() const { return ProcessExists(mypid); }
    /// The process id of the child; -1 when there is none and after terminate().
    long pid() const { return mypid; }
    /// The arguments with one blank between them; for a command text these begin with "/sbin/sh -c".
    const CString& cmd() const { return mycmd; }
    /// Writes command, process id, time limit and, once it is known, the exit status, a line each.
    void dumpOn(std::ostream& out) const override;
    /// The program is ending: in the process that made the object does terminate(), unless the flag is
    /// leave_alone_at_destruction or wait_at_construction. May be called in a signal handler.
    void SigTermProc(int sig) override;

    /// Whether a process of this id exists, whoever owns it. False for a negative id.
    static short ProcessExists(long proc_pid);
    /// Looks into the process list every 2 seconds until one of its lines contains `ProcessName`, at least once and
    /// for at most `maxwaittime` seconds. When it had to wait it gives the program `postwaittime` more seconds to
    /// settle. The name is a pattern for grep inside a shell command, cut where the command exceeds 79 characters.
    /// Returns 1 when it was found, else 0. At debug level 2 it tells what it does on standard output.
    static short WaitForProcessToStart(const char* ProcessName, long maxwaittime, long postwaittime);
    /// Waits in steps of 2 seconds until no process has the id `proc_pid`, for at most `maxtime` seconds. With
    /// `send_kill` it sends that process SIGTERM every 20 seconds.
    static void WaitForProcessToTerminate(long proc_pid, long maxtime, short send_kill);
    /// Sets the limit for the objects made from now on with a limit of 0.
    static void SetGlobalMaxWaitTime(long seconds) { GlobalUnixProcessMaxWaitTime = seconds; }

    /// Sets the bound in bytes for the output that is collected from now on; 0 is none. Output beyond it is read and
    /// counted, but not kept: behind the first `bytes` bytes one line says how many were left out.
    static void SetGlobalMaxOutput(long bytes) { GlobalUnixProcessMaxOutput = bytes; }

    static long GlobalUnixProcessMaxWaitTime; ///< Seconds; 0, its value at the start, is no limit.
    static long GlobalUnixProcessMaxOutput;   ///< Bytes; 0, its value at the start, is no bound.

private:
    UnixProcess(ctor_dtor_flag cd_f, long maxtime);
    void init(const char** argv, short waitflg);
    int initp(const char** argv);
    void dopipe(const char** argv, Buffer& Output);
    bool collect(zeloo::ChildLimit& limit, int* status);
    void killOverdue();

    long maxwaittime; // seconds; 0 is no limit
    short exitstatus; // of the child, or -1 or -222 (see wait)
    long mypid;
    CString mycmd;
    ctor_dtor_flag cd_flag;
    bool isOver;      // the child has ended, or was killed for its time: its id may be somebody else's
    const long owner; // the process that made the object
};

template <>
ZELOO_API const char* SafeArray<UnixProcess>::ElementName();
extern template class SafeArray<UnixProcess>;

/// An array of processes. An owning array that drops an element destroys it, which acts on its ctor_dtor_flag; a
/// copied array leaves the children alone.
class ZELOO_API UnixProcessSafeArray : public SafeArray<UnixProcess> {
public:
    using SafeArray<UnixProcess>::SafeArray;
};

class ZELOO_API UnixProcessSafeArrayIter : public SafeArrayIter<UnixProcess> {
public:
    using SafeArrayIter<UnixProcess>::SafeArrayIter;
};

#endif
