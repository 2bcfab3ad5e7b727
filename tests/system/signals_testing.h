// SPDX-License-Identifier: BSD-2-Clause
// What the test of signals at any instant is made of: scenarios over the units that block or have critical sections, and a
// driver that lets a signal come at one instant of a scenario.
#ifndef TESTS_SYSTEM_SIGNALS_TESTING_H
#define TESTS_SYSTEM_SIGNALS_TESTING_H

#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "Misc/buffer.h"
#include "tests/support/testing.h"

namespace signals_testing {

struct Scenario {
    std::string name;
    /// What is interrupted: uses the library in a process of its own and gives what came of it. Its files are in the
    /// directory, which exists.
    std::function<std::string(const std::string& directory)> run;
    /// Another process that it talks to, as often as it is run, until SIGTERM; none if empty.
    std::function<void()> partner;
    /// What may come of it instead where a signal that is handled interrupts a call and the contract says so.
    std::vector<std::string> interrupted;
    /// What a process has left behind that SIGTERM ended; empty if nothing.
    std::function<std::string(const std::string& directory)> leftovers;
    /// The instants at most in the short form; 0 for as many as the others have.
    int most = 0;
    /// Whether a run takes seconds: the short form has SIGALRM alone.
    bool isSlow = false;
    /// Whether signals come between its instructions too: never, in the long form, or always.
    enum Steps { NoSteps, StepsInLongForm, ShortSteps } steps = NoSteps;
};

inline void PrintTo(const Scenario& scenario, std::ostream* out) { *out << scenario.name; }

std::vector<Scenario> AllScenarios();
/// Those of queues, events and connections.
std::vector<Scenario> MessageScenarios();

/// What scenarios tell: the bytes of a buffer, and whether something is so.
inline std::string Bytes(const Buffer& buffer)
{
    return buffer.Size() == 0 ? ""
                              : std::string(static_cast<const char*>(static_cast<const void*>(buffer)), buffer.Size());
}
inline std::string Is(bool condition, const char* what) { return std::string(condition ? "" : "not ") + what + "\n"; }

/// Which stops of a followed process are instants.
enum Stops { SystemCalls, Instructions };

/// Where signals are sent.
struct Instants {
    Stops stops;
    long at;        // the number of the one instant; -1: none. The process runs freely after it.
    long every = 0; // or each multiple of this
};

/// What a run of a scenario gave.
struct Outcome {
    long instants = 0; // that the run had before it was over, or before the one signal was sent
    long sent = 0;     // signals
    bool hung = false; // and was killed
    int status = 0;    // that waitpid gave
    int terminations = 0;
    double seconds = 0;
    std::string text;  // what came of the scenario
    std::string state; // what the process had then: dispositions, mask, alarm, descriptors, monitored objects
    std::string out;
    std::string err;
    std::string dump; // the dump-state file
};

/// Runs the scenario in a child that is followed, and sends it `sig` there. SIGCLD is sent by a child that ends, or plainly
/// where it comes more than once. A run has 60 seconds.
Outcome Follow(const Scenario& scenario, const std::string& directory, int sig, const Instants& instants);

} // namespace signals_testing

#endif
