// SPDX-License-Identifier: BSD-2-Clause
// A daemon's start, of which the program that was called tells its caller how it went.
#ifndef EXAMPLES_STARTER_H
#define EXAMPLES_STARTER_H

#include <string>

/// The start of a daemon, in the foreground or the background. In the background the process that was called stays until
/// the daemon says that it serves, or why it does not, and ends with that as its exit code: 0, or 1 with the reason on
/// standard error.
class Starter {
public:
    /// Of the program of that name, which stands in front of what is told.
    explicit Starter(const char* name) : name(name), caller(-1) {}
    Starter(const Starter&) = delete;
    Starter& operator=(const Starter&) = delete;
    ~Starter();

    /// Goes into the background as daemonize(log, 1) does, and goes on there. Returns 0, or -1 when that failed, such as
    /// for a log that cannot be written, which has been told. REQUIRES: nothing that belongs to the process, as locks
    /// and queues do, has been made.
    int Daemonize(const char* log);
    /// Tells that the daemon serves: the caller's next command finds it. Also told is a service manager that waits for it
    /// (NOTIFY_SOCKET in the environment, which is gone afterwards).
    void Serves();
    /// Tells why the daemon does not start, on standard error and to the caller. Returns 1, an exit code.
    int Refuse(const std::string& reason);
    /// The same of a LockFile `locked`, which was refused with `error`.
    int RefuseUnlocked(int error, const std::string& locked);

private:
    const std::string name;
    int caller; // the way to the process that was called; -1 when nobody waits
};

#endif
