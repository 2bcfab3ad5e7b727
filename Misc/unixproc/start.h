// SPDX-License-Identifier: BSD-2-Clause
// How a command becomes a child process.
#ifndef MISC_UNIXPROC_START_H
#define MISC_UNIXPROC_START_H

#include "svr4/spawn.h"

namespace zeloo {

/// The report of a command that cannot be executed, as the child writes it: that of an ErrorReporter in its place, but
/// neither its error state nor its streams are touched, since they are the parent's too. Made in the parent, with the
/// time and the number of reports there.
class ExecReport {
public:
    /// `command` must outlive this.
    explicit ExecReport(const char* command);
    /// Writes the report to standard error, with the text of `error`. For a child of svr4::spawn. It is left out when
    /// standard error takes nothing for a second: the parent, which may be the one to read it, waits meanwhile.
    void Write(int error) const;

private:
    static const int Errors = 134; // on the host

    bool isShown;
    char head[120];
    const char* program;
    char type[200];
    char tail[400];
    bool isTranslated;
    const char* translations[Errors]; // of the errors, where the program has chosen another language
};

/// A command on its way: a session of its own, no monitored objects, SIGCLD ignored.
class CommandStart : public svr4::Newborn {
public:
    /// `argv` is the vector to execute, `command` its text for the report. `ends` is the pipe that takes the standard
    /// output, or null; without one the descriptors 3 to 59 are closed in the child.
    CommandStart(const char* const* argv, const char* command, const int* ends);
    /// Puts the child's id, or -1, into `*pid`, before a handler can run. False with `errno` when there is no child.
    bool Run(long* pid);
    /// Whether Run failed because the pipe could not be put into place.
    bool PipeFailed() const { return pipeFailed; }

    int LeaveParent() override;
    void BecomeProgram() override;

private:
    const char* const* argv;
    const int* ends;
    bool pipeFailed;
    const ExecReport report;
};

} // namespace zeloo

#endif
