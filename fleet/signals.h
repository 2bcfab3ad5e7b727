// SPDX-License-Identifier: BSD-2-Clause
// Whom signals come to in a program that has threads of the engine's client.
#ifndef FLEET_SIGNALS_H
#define FLEET_SIGNALS_H

#include <csignal>

namespace fleet {

/// Holds all signals of this thread while it lives. A thread that the engine's client makes meanwhile, at any operation, holds
/// them for ever: one that took the alarm of a receive, or the end of a child, would leave who waits for it waiting.
class SignalsHeld {
public:
    SignalsHeld()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &before);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    sigset_t before;
};

} // namespace fleet

#endif
