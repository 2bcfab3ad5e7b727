// SPDX-License-Identifier: BSD-2-Clause
// The signals after which a process of relayd goes on: when it takes notice of them.
#ifndef TOOLS_RELAYD_SIGNALS_H
#define TOOLS_RELAYD_SIGNALS_H

#include <cerrno>
#include <csignal>

#include <poll.h>

namespace relayd {

/// While it lives, the signal for a dump and that of a child's end come in Await only. Anywhere else they would make a
/// call on an endpoint fail: a connection ends with that in the middle of an event, and a listening endpoint closes,
/// with all clients that wait there. A forked child holds them back too.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t held;
        sigemptyset(&held);
        sigaddset(&held, SIGUSR1);
        sigaddset(&held, SIGCHLD);
        sigprocmask(SIG_BLOCK, &held, &earlier);
    }
    ~SignalsHeld() { sigprocmask(SIG_SETMASK, &earlier, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

    /// Waits, for as long as it takes, until a call on the descriptor would not wait. False when a signal came first.
    bool Await(int fd) const
    {
        struct pollfd descriptor = {fd, POLLIN, 0};
        return ppoll(&descriptor, 1, nullptr, &earlier) >= 0 || errno != EINTR;
    }

private:
    sigset_t earlier;
};

} // namespace relayd

#endif
