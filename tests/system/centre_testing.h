// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the centre share besides servers of the engine: hosts whose changes are made up, and what the bucket has.
// The engine's client has threads, so that only children use it, which are forked before.
#ifndef TESTS_SYSTEM_CENTRE_TESTING_H
#define TESTS_SYSTEM_CENTRE_TESTING_H

#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <sys/types.h>

#include "fleet/bucket.h"
#include "fleet/engine.h"
#include "fleet/faultstate.h"
#include "tests/system/fleet_testing.h"

namespace centre_testing {

using namespace fleet_testing;

const std::string Faultcentre = ProgramUnderTest(FAULTCENTRE);

/// The servers of the engine that all here ask. A test says which.
inline std::string Urls;

/// A connection, which is made if that takes no longer than a while. For children.
void Connect(fleet::Engine& engine);
fleet::EngineAddress Address(const char* name = "test");

/// A host with faults of its own, whose changes it makes up and stores in the stream as a gate does. For children.
class MadeUpHost {
public:
    MadeUpHost(const std::string& name, unsigned seed) : name(name), seed(seed), random(seed) {}

    /// Stores some changes, and waits for the engine as long as it is away.
    void Go(fleet::Engine& engine);
    /// Its faults, a line each.
    std::string Faults() const;
    std::mt19937& Random() { return random; }

private:
    void Begin(Buffer& message);
    void Add(fleet::Engine& engine, FaultChange::Kind kind, const FaultId& id, Buffer& message);
    void StorePieces(fleet::Engine& engine, const FaultChange& change);

    const std::string name;
    const unsigned seed;
    std::mt19937 random;
    fleet::Position position;
    int journals = 0;
    long number = 0;
    std::map<std::string, FaultRecord> faults;
};

/// The line of a fault in such lists.
std::string LineOf(const std::string& node, const FaultSummary& fault);

/// What a child with a connection gives.
std::string AskEngine(const std::function<std::string(fleet::Engine& engine)>& body);
/// The faults in the bucket that are there, a line each.
std::string FaultsInBucket();
/// The subjects of the messages in the stream, and how many each has, a line each.
std::string SubjectsInStream();
/// The same, for children.
std::string Subjects(fleet::Engine& engine);

} // namespace centre_testing

#endif
