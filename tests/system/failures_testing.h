// What the tests of injected failures share: scenarios over all units, each a short use of the library that looks at every
// result and goes on with whatever it is given.
#ifndef TESTS_SYSTEM_FAILURES_TESTING_H
#define TESTS_SYSTEM_FAILURES_TESTING_H

#include <functional>
#include <string>
#include <vector>

#include "tests/support/testing.h"

namespace failures_testing {

struct Scenario {
    const char* name;
    /// Ends the process with CHILD_CHECK when a result is none of those that are stated, or something is lost. Keeps its
    /// files in `directory`, which exists, and leaves nothing else behind.
    void (*run)(const std::string& directory);
};

extern const std::vector<Scenario> Scenarios;

/// Gives the process a name, and the scenarios what they look for on a host.
void MakeHostReady();

/// What a process holds that must be given back.
struct Holdings {
    int descriptors;
    long kernelObjects;
    bool operator==(const Holdings& other) const
    {
        return descriptors == other.descriptors && kernelObjects == other.kernelObjects;
    }
};
Holdings HoldingsNow();

/// Whether a process ended as the library says that it may: in order, or by an assertion or a PANIC that says so.
bool EndedAsStated(const testing_support::ChildResult& result);

} // namespace failures_testing

#endif
