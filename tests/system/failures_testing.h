// SPDX-License-Identifier: BSD-2-Clause
// What the tests of injected failures share: scenarios over all units, each a short use of the library that looks at every
// result and goes on with whatever it is given.
#ifndef TESTS_SYSTEM_FAILURES_TESTING_H
#define TESTS_SYSTEM_FAILURES_TESTING_H

#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/testing.h"

namespace failures_testing {

struct Scenario {
    const char* name;
    /// Ends the process with CHILD_CHECK when a result is none of those that are stated, or something is lost. Keeps its
    /// files in `directory`, which exists, and leaves nothing else behind. True when everything went as it does when
    /// nothing fails.
    bool (*run)(const std::string& directory);
    /// Whether the program under test allocates by a `new` that throws: it ends when there is no memory.
    bool throws = false;
};

extern const std::vector<Scenario> Scenarios;

// Those that have files of their own.
bool Files(const std::string& directory);
bool Nodes(const std::string& directory);
bool Locks(const std::string& directory);
bool Logs(const std::string& directory);
bool Dumps(const std::string& directory);
bool Segments(const std::string& directory);
bool Processes(const std::string& directory);
bool Children(const std::string& directory);
bool Commands(const std::string& directory);
bool Queues(const std::string& directory);
bool Connections(const std::string& directory);
bool Clients(const std::string& directory);
bool Events(const std::string& directory);
bool Faults(const std::string& directory);
bool JournaledFaults(const std::string& directory);
bool BrokenFaults(const std::string& directory);

/// Cleared while failures are injected: then a scenario waits for nothing that may not come.
extern bool nothingFails;

/// The path of a file in a directory. Like all of a scenario it allocates nothing that is not the library's.
class PathIn {
public:
    PathIn(const std::string& directory, const char* name)
    {
        std::snprintf(text, sizeof text, "%s/%s", directory.c_str(), name);
    }
    operator const char*() const { return text; }

private:
    char text[256];
};

/// Gives the process a name, and the scenarios what they look for on a host.
void MakeHostReady();
/// In the sandbox: lets the records that are logged arrive.
void ListenForLogs();
/// Takes what was logged; without that a program that logs waits for room.
void ForgetLogs();

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
