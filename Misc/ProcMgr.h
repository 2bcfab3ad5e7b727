// SPDX-License-Identifier: BSD-2-Clause
// The commands that a daemon runs on behalf of faults, started some at a time.
#ifndef MISC_PROCMGR_H
#define MISC_PROCMGR_H

#include <ostream>

#include "Misc/Error.h"
#include "Misc/FaultId.h"
#include "Misc/SafeArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// A command that waits to be started.
struct ZELOO_API CmdLine {
    CString cmd;         ///< The text for "/sbin/sh -c".
    int retry_count = 0; ///< The starts that failed so far.
    FaultId Cur_fid;     ///< The fault it is run for; empty for a command given as an argument vector.
};

template <>
ZELOO_API const char* SafeArray<CmdLine>::ElementName();
extern template class SafeArray<CmdLine>;

/// The array of CmdLine; it owns its elements.
class ZELOO_API CmdLineSafeArray : public SafeArray<CmdLine> {
public:
    using SafeArray<CmdLine>::SafeArray;
};

/// A command that was started.
struct ZELOO_API ProcInfo {
    FaultId AssociateFaultId; ///< The Cur_fid of its CmdLine.
    long pid = 0;             ///< The process id of the shell, which leads a process group of its own.
    long timestamp = 0;       ///< When it was started, in seconds since the epoch.
};

template <>
ZELOO_API const char* SafeArray<ProcInfo>::ElementName();
extern template class SafeArray<ProcInfo>;

/// The array of ProcInfo; it owns its elements.
class ZELOO_API ProcInfoSafeArray : public SafeArray<ProcInfo> {
public:
    using SafeArray<ProcInfo>::SafeArray;
};

/// The commands of this process: those that wait, in the order in which they were submitted, and those that run, at
/// most MaxActive of them. Making a ProcMgr submits one command; the object may go at once, and the command stays. The
/// daemon calls CheckProcesses() every now and then, since nothing else makes room for the commands that wait.
///
/// Commands are never waited for: one has ended when no process has its id any more. A program that does not ignore
/// SIGCLD, as daemonize() makes it do, must reap its children itself; until then their places stay taken.
///
/// A command that cannot be started is tried again in later passes, one attempt a pass. After MaxRetry + 1 failed
/// attempts it is dropped, which is reported (WARNING, OTHER). Until then it keeps its place at the head, and the
/// others wait behind it.
///
/// The queues are built before the static objects of any unit that includes this header and destroyed after these.
/// They serve a process of one thread.
class ZELOO_API ProcMgr : public ErrorReporter {
public:
    /// Submits the text `Cmd` for the fault `Cur_f` (null: for none); both are copied. Then makes room and starts what
    /// can be started, as CheckProcesses() does. A command that finds no memory or no place among 256,000 is not
    /// submitted, which is reported (WARNING, OUT_OF_MEMORY).
    ProcMgr(const char* Cmd, Fault* Cur_f);
    /// The same for the elements of a null-terminated vector, joined with blanks to a text for the shell, which splits
    /// and interprets them anew; for no fault. REQUIRES: `argv` is not null.
    explicit ProcMgr(const char** argv);
    /// Leaves the commands alone.
    ~ProcMgr() override;

    /// CountProcesses() and then RunProcesses().
    static void CheckProcesses();
    /// Makes room for one command at most: takes the first one that has ended off the running ones. When none before it
    /// has ended, a command that has run for more than MaxTime seconds is killed with its whole process group (SIGKILL)
    /// and taken off, but only when exactly MaxActive are running and another waits; that is reported with its fault
    /// (WARNING, OTHER). One that cannot be killed is reported and taken off too. All of this is intended.
    static void CountProcesses();
    /// Starts commands that wait, the first one first, until MaxActive are running or a start fails.
    static void RunProcesses();

    /// Sets how many commands may run at once. Those that run already go on.
    static void SetMaxActive(long commandsAtOnce) { MaxActive = commandsAtOnce; }
    /// How many commands may run at once.
    static long GetMaxActive() { return MaxActive; }
    /// Sets how many failed starts a command survives.
    static void SetMaxRetry(long failedStarts) { MaxRetry = failedStarts; }
    /// How many failed starts a command survives.
    static long GetMaxRetry() { return MaxRetry; }
    /// Sets the seconds that a command may run before it can be killed.
    static void SetMaxTime(long seconds) { MaxTime = seconds; }
    /// The seconds that a command may run before it can be killed.
    static long GetMaxTime() { return MaxTime; }

    /// Writes the commands that wait, those that run, the limits, and how many were killed for their time and dropped
    /// after failed starts since the process began.
    static void dumpOn(std::ostream& out);

    static CmdLineSafeArray& commands;   ///< Those that wait; owned.
    static ProcInfoSafeArray& processes; ///< Those that run; owned.
    static long MaxActive;               ///< Commands that run at once; 8 at first.
    static long MaxRetry;                ///< Failed starts that a command survives; 4 at first.
    static long MaxTime;                 ///< Seconds that a command may run before it can be killed; 1800 at first.

private:
    void Submit(CmdLine* command, const char* noMemory);
    static bool StartFirst();
};

/// Keeps the queues of ProcMgr alive while the static objects of an including unit are.
class ZELOO_API ProcMgrQueues {
public:
    /// Builds the queues when no other such object has.
    ProcMgrQueues();
    /// Destroys the queues when it is the last such object.
    ~ProcMgrQueues();
    ProcMgrQueues(const ProcMgrQueues&) = delete;
    ProcMgrQueues& operator=(const ProcMgrQueues&) = delete;
};

static ProcMgrQueues procMgrQueues;

#endif
