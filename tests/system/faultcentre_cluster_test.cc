// SPDX-License-Identifier: BSD-2-Clause
// Two centres under three servers of the engine, of which those that lead are killed, and so is a centre.
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/system/hosts_testing.h"

using namespace centre_testing;
using namespace fleet;

namespace {

class FaultcentreClusterTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs namespaces";
        if (EngineProgram().empty())
            GTEST_SKIP() << "needs nats-server";
        static char name[] = "faultcentre_cluster_test";
        static char* argv[] = {name, nullptr};
        ProgInfo::Initialize(1, argv, argv + 1, "1.0");
        void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        shared = new (memory) Shared();
        Urls = engine.Urls();
        engine.StartAll();
        ASSERT_TRUE(engine.SetUp({"--replicas", "3", "--lease", "2"})) << engine.Log();
        for (const char* centre : {"north", "south"})
            centres.push_back({std::make_unique<Host>(centre), 0});
        for (Centre& centre : centres)
            Start(centre);
    }
    void TearDown() override
    {
        if (storm > 0)
            EndChild(storm);
        if (shared != nullptr)
            munmap(shared, sizeof(Shared));
    }

    struct Shared {
        volatile int stored; // messages, by the storm
        volatile bool ends;
    };
    struct Centre {
        std::unique_ptr<Host> host;
        pid_t process;
    };

    static void Start(Centre& centre)
    {
        centre.process = centre.host->Start(Faultcentre, {"--engine", Urls, "--foreground"});
    }
    /// Starts a child that stores changes of some hosts.
    void StartStorm()
    {
        Shared* const state = shared;
        storm = StartChild([=] {
            Engine connection(Address("storm"));
            Connect(connection);
            std::vector<MadeUpHost> hosts;
            for (unsigned i = 0; i < 4; i++)
                hosts.emplace_back("host" + std::to_string(i), i);
            while (!state->ends)
                for (MadeUpHost& host : hosts) {
                    host.Go(connection);
                    state->stored = state->stored + 1;
                    usleep(host.Random()() % 4000);
                }
            std::string lines;
            for (const MadeUpHost& host : hosts)
                lines += host.Faults();
            WriteFile(directory.File("expected"), lines);
        });
    }
    bool StoresMore(int messages) const
    {
        const int until = shared->stored + messages;
        return WaitUntil([&] { return shared->stored >= until; }, 60);
    }
    /// Ends the storm. What comes of it.
    std::string EndStorm()
    {
        shared->ends = true;
        EXPECT_EQ(WaitForExit(storm, 60), 0);
        storm = 0;
        return ReadFile(directory.File("expected"));
    }
    int LeaderOf(const std::string& stream) const
    {
        return std::stoi(AskEngine([&](Engine&) { return std::to_string(engine.Leader(stream)); }));
    }
    bool AreInStep() const
    {
        return WaitUntil(
            [&] {
                return LeaderOf(StreamName) >= 0 && LeaderOf(BucketStream(FaultBucket)) >= 0 &&
                       LeaderOf(BucketStream(CentreBucket)) >= 0;
            },
            60);
    }
    /// Kills the server that leads a stream, and a centre with it. Starts both again when the others go on.
    void KillLeader(const std::string& stream, Centre* centre = nullptr)
    {
        ASSERT_TRUE(AreInStep()); // one that is not counts as one that is away, and of three one may be
        int leader = -1;
        ASSERT_TRUE(WaitUntil([&] { return (leader = LeaderOf(stream)) >= 0; }, 60));
        EXPECT_TRUE(StoresMore(10));
        engine.End(leader);
        if (centre != nullptr)
            centre->host->End(centre->process, SIGKILL);
        EXPECT_TRUE(StoresMore(50)) << "two are enough";
        engine.Start(leader);
        if (centre == nullptr)
            return;
        const int killed = static_cast<int>(centre - centres.data());
        EXPECT_TRUE(WaitUntil([&] { return Active() == 1 - killed; }, 60)) << "the other one goes on";
        Start(*centre);
    }
    /// The centre that has the lease, by its place among the centres; -1: none.
    int Active() const
    {
        const std::string holder = AskEngine([](Engine& connection) {
            std::string value;
            uint64_t revision = 0;
            Get(connection, CentreBucket, "applier", &value, &revision);
            return value;
        });
        for (std::size_t i = 0; i < centres.size(); i++)
            if (holder.find(centres[i].host->name + " ") == 0)
                return static_cast<int>(i);
        return -1;
    }
    void ExpectFaults(const std::string& expected)
    {
        for (const Centre& centre : centres) {
            std::string listed;
            EXPECT_TRUE(WaitUntil(
                [&] { return (listed = Replaced(centre.host->Centre({"list"}), "\t<time>", "")) == expected; }, 30))
                << centre.host->name << ReadFile(centre.host->Log());
            EXPECT_EQ(listed, expected) << centre.host->name;
        }
    }

    EngineServers engine{3};
    TemporaryDirectory directory;
    Shared* shared = nullptr;
    std::vector<Centre> centres;
    pid_t storm = 0;
};

// With FAULTCENTRE_KILLS in the environment the server that leads the bucket is killed, too. In one of some ten such runs
// messages were missing in the stream afterwards that nobody had removed (nats-server 2.9.10); why is not known.
TEST_F(FaultcentreClusterTest, EachFaultIsThereOnceInItsLastState)
{
    StartStorm();
    int active = -1;
    ASSERT_TRUE(WaitUntil([&] { return (active = Active()) >= 0; }, 60));
    KillLeader(StreamName, &centres[static_cast<std::size_t>(active)]);
    if (std::getenv("FAULTCENTRE_KILLS") != nullptr)
        KillLeader(BucketStream(FaultBucket));
    const std::string expected = EndStorm();
    EXPECT_GT(CountOf(expected, "\n"), 10);
    ExpectFaults(expected);
}

} // namespace
