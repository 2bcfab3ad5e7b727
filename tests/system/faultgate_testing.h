// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the gate share: a fixture with an engine, a daemon with a journal, and gates.
#ifndef TESTS_SYSTEM_FAULTGATE_TESTING_H
#define TESTS_SYSTEM_FAULTGATE_TESTING_H

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "fleet/message.h"
#include "tests/system/fleet_testing.h"

namespace fleet_testing {

const char JournalDirectory[] = "/var/orv/data/journal";
const char FaultDirectory[] = "/var/orv/data/faults";
const char NodesFile[] = "/var/orv/data/orvnodes.dat";

inline ChildResult Ctl(const std::vector<std::string>& arguments) { return RunProgram(Faultctl, arguments); }

class FaultgateTest : public ::testing::Test {
protected:
    explicit FaultgateTest(int engines = 1) : engine(engines) {}
    void SetUp() override
    {
        static char name[] = "faultgate_test";
        static char* argv[] = {name, nullptr};
        if (EngineProgram().empty())
            GTEST_SKIP() << "nats-server is not installed";
        if (!InSandbox())
            GTEST_SKIP() << "needs a private /var and /opt/orv/bin";
        ProgInfo::Initialize(1, argv, argv + 1, FaultVersion);
        for (const char* path : {JournalDirectory, FaultDirectory, NodesFile})
            std::filesystem::remove_all(path);
        MakeKeyFile(FaultServerName);
        node = ProgInfo::GetNodeName();
    }
    void TearDown() override
    {
        for (const pid_t gate : gates)
            EndChild(gate, SIGKILL);
        if (daemon > 0)
            EndChild(daemon, SIGTERM);
    }

    void StartDaemon()
    {
        daemon = StartProgram(Faultd, {"--foreground", "--journal"}, directory.File("faultd.log"));
        ASSERT_TRUE(WaitUntil([] { return Ctl({"list"}).exitCode == 0; })) << ReadFile(directory.File("faultd.log"));
    }
    void EndDaemon(int signal)
    {
        EndChild(daemon, signal);
        daemon = 0;
    }
    void StartEngine(const std::vector<std::string>& settings = {})
    {
        engine.Start();
        ASSERT_TRUE(engine.SetUp(settings)) << engine.Log();
    }
    std::string gateLog(int index = 0) const { return directory.File("gate" + std::to_string(index)); }
    // Starts the next gate, or an ended one again.
    void StartGate(std::size_t index = 0)
    {
        std::remove(gateLog(static_cast<int>(index)).c_str());
        const pid_t gate =
            StartProgram(Faultgate, {"--engine", engine.Urls(), "--interval", "10"}, gateLog(static_cast<int>(index)));
        if (index == gates.size())
            gates.push_back(gate);
        else
            gates[index] = gate;
    }
    ChildResult Once() const { return RunProgram(Faultgate, {"--engine", engine.Urls(), "--once"}); }
    // Waits until the daemon was told that all its changes have been passed on.
    bool AllPassedOn() const
    {
        return WaitUntil([&] { return CountOf(Ctl({"changes"}).out, "\n") == 1; }, 60);
    }
    // That the stream has what the daemon has, in one journal, whole.
    void ExpectAgreement() const
    {
        const History history = ReadHistory(engine.Urls(), node);
        EXPECT_EQ(history.journals.size(), 1u);
        EXPECT_TRUE(history.replay.faults == FaultsOfServer());
        EXPECT_EQ(history.replay.last, ChangesOfServer().last);
    }

    EngineServers engine;
    TemporaryDirectory directory;
    std::string node;
    pid_t daemon = 0;
    std::vector<pid_t> gates;
};

} // namespace fleet_testing

#endif
