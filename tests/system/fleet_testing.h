// SPDX-License-Identifier: BSD-2-Clause
// What the tests of fleet/ share: servers of the engine, what lies in its stream, and a storm of changes.
#ifndef TESTS_SYSTEM_FLEET_TESTING_H
#define TESTS_SYSTEM_FLEET_TESTING_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <sys/types.h>

#include "examples/fault.h"
#include "fleet/engine.h"
#include "tests/support/testing.h"
#include "tests/system/faultjournal_replay.h"

namespace fleet_testing {

using namespace testing_support;

const std::string Faultgate = ProgramUnderTest(FAULTGATE);
const std::string Faultfleet = ProgramUnderTest(FAULTFLEET);
const std::string Faultd = ProgramUnderTest(FAULTD);
const std::string Faultctl = ProgramUnderTest(FAULTCTL);

/// The engine's server program; empty where it is not installed.
std::string EngineProgram();

/// One server of the engine, or several as a cluster, on the loopback, which the sandbox has for itself. Their storage
/// goes with the object, and they end with it.
class EngineServers {
public:
    /// Nothing is started yet.
    explicit EngineServers(int count = 1);
    ~EngineServers();
    /// What comes into their configuration from now on, besides what each needs.
    void Configure(const std::string& text) { extra = text; }
    /// Starts one that does not run.
    void Start(int index = 0);
    void StartAll();
    /// Ends one and waits for its end.
    void End(int index = 0, int signal = SIGKILL);
    /// Has one read its configuration again, and waits until it has.
    bool Reload(int index = 0);
    pid_t Process(int index = 0) const { return processes[static_cast<std::size_t>(index)]; }
    /// The URLs of all, between commas.
    std::string Urls() const;
    /// Waits until the stream, if there is one, and the cluster can be used: until `faultfleet setup` with these
    /// arguments succeeds.
    bool SetUp(const std::vector<std::string>& settings = {}) const;
    /// The number of the server that leads a stream; -1 while none does, or while others lag behind it.
    int Leader(const std::string& stream = fleet::StreamName) const;
    std::string Log(int index = 0) const;

private:
    std::string File(int index, const char* suffix) const;
    std::string Configuration(int index) const;

    std::string extra;
    TemporaryDirectory directory;
    std::vector<pid_t> processes;
};

/// The credentials of a fleet, whose engine is one server.
class Credentials {
public:
    /// Those of the engine and of an operator are made.
    Credentials();
    /// Has `credentials` do what these arguments say. That it fails is a failure of the test.
    void Make(const std::vector<std::string>& arguments) const;
    /// Where it puts what has that name.
    std::string Place(const std::string& name) const { return directory.File("fleet/" + name); }
    std::string Place() const { return directory.File("fleet"); }
    /// What EngineServers::Configure needs.
    std::string Configuration() const;
    std::string Operator() const { return Place("operator-main"); }

private:
    TemporaryDirectory directory;
};

/// A message of the stream.
struct Stored {
    std::string subject;
    std::string journal; // these two of changes
    long number = 0;
    std::string data;
};

/// All messages that are in the stream, in their order. It is a failure of the test when they cannot be read.
std::vector<Stored> ReadStream(const std::string& urls, const std::string& credentials = "");

/// A node's changes in the stream, with their attachments. It is a failure of the test when a message is not sound, the
/// numbers of a journal don't go up by one from Began on, a journal comes again after another, or an attachment is not
/// whole or has been stored twice.
struct History {
    std::vector<std::string> journals;
    std::vector<FaultChange> changes;
    faultjournal_testing::Replay replay; // of the last journal
};
History ReadHistory(const std::string& urls, const std::string& node, const std::string& credentials = "");

/// A change as bytes.
std::string PackedChange(const FaultChange& change);

/// The changes that the daemon's journal has, and the daemon's faults with their attachments.
FaultChangeList ChangesOfServer(long since = 0);
faultjournal_testing::Faults FaultsOfServer();

/// A process that raises, moves and clears faults, whatever becomes of the daemon, as far as it is allowed to.
class Storm {
public:
    /// Every `every`-th raise has an attachment of up to `size` bytes.
    Storm(unsigned seed, int every, unsigned size);
    ~Storm();
    /// Lets it do `count` more raises.
    void Allow(int count) { shared->allowed = shared->allowed + count; }
    int Raised() const { return shared->raised; }
    /// Waits until it has done so many.
    bool HasRaised(int count) const;
    /// Waits until it has done what it may.
    bool Settles() const { return HasRaised(shared->allowed); }

private:
    struct Shared {
        volatile int allowed, raised;
    };
    static void Run(Shared& shared, unsigned seed, int every, unsigned size);

    Shared* shared;
    pid_t process;
};

} // namespace fleet_testing

#endif
