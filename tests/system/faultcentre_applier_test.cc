// SPDX-License-Identifier: BSD-2-Clause
// The faults that the centres make of the changes of many hosts, whatever happens to the centres and to the engine.
#include <csignal>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fleet/applier.h"
#include "tests/system/centre_testing.h"

using namespace centre_testing;
using namespace fleet;

namespace {

const int Hosts = 5;
const int Most = 3; // appliers

struct Shared {
    volatile int stored;        // messages, by the hosts
    volatile bool active[Most]; // which applier works
    volatile long runs[Most];
};

class ApplierTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!InSandbox())
            GTEST_SKIP() << "needs a network of its own";
        if (EngineProgram().empty())
            GTEST_SKIP() << "needs nats-server";
        void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        shared = new (memory) Shared();
        engine.Start();
        ASSERT_TRUE(engine.SetUp({"--lease", "1"})) << engine.Log();
    }
    void TearDown() override
    {
        for (int i = 0; i < Most; i++)
            EndApplier(i);
        if (hosts > 0)
            EndChild(hosts);
        if (shared != nullptr)
            munmap(shared, sizeof(Shared));
    }

    void StartApplier(int i, long keepSeconds = 3600)
    {
        Shared* const state = shared;
        state->active[i] = false;
        appliers[i] = StartChild([=] {
            const std::string name = "centre-" + std::to_string(i);
            Engine connection(Address(name.c_str()));
            Applier applier(connection, name, keepSeconds);
            for (;;) {
                const Applier::Step step = applier.Run(100);
                state->active[i] = applier.IsActive();
                state->runs[i] = state->runs[i] + 1;
                if (step == Applier::Stuck)
                    std::clog << name << ": " << applier.Problem() << std::endl;
                if (!applier.IsActive())
                    usleep(20000);
            }
        });
    }
    void EndApplier(int i)
    {
        if (appliers[i] > 0)
            EndChild(appliers[i]);
        appliers[i] = 0;
        if (shared != nullptr)
            shared->active[i] = false;
    }
    int Active() const
    {
        for (int i = 0; i < Most; i++)
            if (shared->active[i])
                return i;
        return -1;
    }
    bool OneIsActive() const
    {
        return WaitUntil([&] { return Active() >= 0; });
    }

    /// Starts the hosts, each of which stores so many messages, some a second. `Expected()` is what comes of them.
    void StartHosts(int messages, unsigned pause, unsigned seed = 1)
    {
        Shared* const state = shared;
        hosts = StartChild([=] {
            Engine connection(Address("hosts"));
            Connect(connection);
            std::vector<MadeUpHost> all;
            all.reserve(Hosts);
            for (int i = 0; i < Hosts; i++)
                all.emplace_back("host." + std::to_string(i), seed * 100 + static_cast<unsigned>(i));
            for (int n = 0; n < messages; n++)
                for (MadeUpHost& host : all) {
                    host.Go(connection);
                    state->stored = state->stored + 1;
                    usleep(host.Random()() % (2 * pause + 1));
                }
            std::string lines;
            for (const MadeUpHost& host : all)
                lines += host.Faults();
            WriteFile(directory.File("expected"), lines);
        });
    }
    std::string Expected()
    {
        EXPECT_EQ(WaitForExit(hosts, 120), 0);
        hosts = 0;
        return ReadFile(directory.File("expected"));
    }
    /// Waits until the bucket has these faults.
    static void ExpectFaults(const std::string& expected)
    {
        std::string faults;
        EXPECT_TRUE(WaitUntil([&] { return (faults = FaultsInBucket()) == expected; }, 30));
        EXPECT_EQ(faults, expected);
    }
    /// Waits until the stream has nothing but the last message of each host and the pieces of attachments that are there.
    static void ExpectTrimmed(int attachments)
    {
        std::string subjects;
        const auto isTrimmed = [&] {
            subjects = SubjectsInStream();
            bool isSmall = CountOf(subjects, "fault.piece.") == attachments;
            for (int i = 0; i < Hosts; i++)
                isSmall = isSmall && CountOf(subjects, "fault.change.host=2E" + std::to_string(i) + " 1\n") == 1;
            return isSmall;
        };
        EXPECT_TRUE(WaitUntil(isTrimmed, 30)) << subjects;
    }
    static int Attachments(const std::string& faults) { return CountOf(faults, "\t5\ttext"); }

    TemporaryDirectory directory;
    EngineServer engine;
    Shared* shared = nullptr;
    pid_t appliers[Most] = {};
    pid_t hosts = 0;
};

TEST_F(ApplierTest, MakesTheFaultsOfAllHosts)
{
    StartHosts(100, 0);
    StartApplier(0);
    const std::string expected = Expected();
    EXPECT_GT(CountOf(expected, "\n"), 2 * Hosts);
    ExpectFaults(expected);
    ExpectTrimmed(Attachments(expected));
    EndApplier(0);
    StartApplier(1);
    ASSERT_TRUE(OneIsActive());
    StartHosts(1, 0, 2); // of the same names: what was there before is gone
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OnlyWhatIsAppliedIsRemovedAndTheLastMessageStays)
{
    AskEngine([](Engine& connection) {
        Cleaner cleaner(connection);
        Position position;
        position.journal = "j";
        Buffer data;
        for (const char* node : {"one", "two", "three"}) {
            position.sequence = 0;
            for (int i = 0; i < 3; i++) {
                position.number = i + 1;
                CHILD_CHECK(connection.Publish(node, data, &position) == Outcome::Done);
            }
        }
        cleaner.Done("one", 1); // the first of the stream, behind which two have not been applied
        cleaner.Done("two", 5);
        cleaner.Done("three", 9);
        cleaner.Run();
        return std::string();
    });
    EXPECT_EQ(SubjectsInStream(), "fault.change.one 3\nfault.change.three 1\nfault.change.two 2\n");
}

TEST_F(ApplierTest, AppliedAgainTheyAreTheSame)
{
    StartHosts(60, 0);
    const std::string expected = Expected();
    for (int i = 0; i < 3; i++) {
        StartApplier(i);
        ExpectFaults(expected);
        EndApplier(i);
        const std::string place = AskEngine([](Engine& connection) { // as if the crash had come before it was stored
            Write write;
            std::string value;
            CHILD_CHECK(Get(connection, FaultBucket, "applied", &value, &write.expected) == Outcome::Done);
            write.subject = KeySubject(FaultBucket, "applied");
            const std::string before = value.substr(0, value.find(' ')) + " 0";
            write.bytes = before.data();
            write.size = before.size();
            CHILD_CHECK(Store(connection, write) == Outcome::Done);
            return value;
        });
        EXPECT_FALSE(place.empty());
    }
}

TEST_F(ApplierTest, OneIsActiveAndAnotherGoesOn)
{
    StartHosts(60, 5000);
    for (int i = 0; i < Most; i++)
        StartApplier(i);
    ASSERT_TRUE(OneIsActive());
    for (int i = 0; i < 2; i++) {
        const int first = Active();
        ASSERT_GE(first, 0);
        EndApplier(first);
        EXPECT_TRUE(OneIsActive()) << "another one";
    }
    EXPECT_EQ(static_cast<int>(shared->active[0]) + shared->active[1] + shared->active[2], 1);
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OneThatWasStoppedDoesNoHarm)
{
    StartHosts(150, 3000);
    StartApplier(0);
    StartApplier(1);
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(OneIsActive());
        const int stopped = Active();
        ASSERT_GE(stopped, 0);
        usleep(static_cast<useconds_t>(i * 7000)); // it is to be stopped at its work
        kill(appliers[stopped], SIGSTOP);
        shared->active[stopped] = false;
        EXPECT_TRUE(OneIsActive()) << "the other one goes on";
        kill(appliers[stopped], SIGCONT);
    }
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OneThatWasStoppedBringsNothingBack)
{
    StartApplier(0);
    EXPECT_TRUE(OneIsActive());
    StartHosts(40, 1500);
    EXPECT_TRUE(WaitUntil([&] { return shared->stored > 4 * Hosts; }));
    kill(appliers[0], SIGSTOP); // with changes that it has read and not stored, or is about to be given
    const long runs = shared->runs[0];
    StartApplier(1);
    const std::string expected = Expected();
    ExpectFaults(expected);
    kill(appliers[0], SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return shared->runs[0] > runs + 1; }));
    EXPECT_EQ(FaultsInBucket(), expected);
}

TEST_F(ApplierTest, AValueIsStoredInThePlaceOfTheOneThatIsKnown)
{
    const std::string seen = AskEngine([](Engine& connection) {
        BulkWriter writer(connection);
        std::string outcomes;
        std::vector<uint64_t> revisions = {0};
        const auto store = [&](uint64_t expected) {
            std::vector<Write> writes(1);
            writes[0].subject = KeySubject(FaultBucket, "fault.a.b");
            writes[0].bytes = "value";
            writes[0].size = 5;
            writes[0].expected = expected;
            Write alone = writes[0];
            CHILD_CHECK(writer.Store(writes) == Outcome::Done);
            outcomes += writes[0].outcome == Outcome::Done ? "done " : "passed ";
            if (writes[0].outcome == Outcome::Done)
                revisions.push_back(writes[0].revision);
            else
                CHILD_CHECK(Store(connection, alone) == Outcome::Passed);
        };
        store(0);
        store(0);
        store(revisions[1]);
        store(revisions[1]);
        CHILD_CHECK(js_DeleteMsg(connection.Streams(), BucketStream(FaultBucket).c_str(), revisions[2], nullptr,
                                 nullptr) == NATS_OK);
        store(revisions[2]);
        store(0);
        return outcomes;
    });
    EXPECT_EQ(seen, "done passed done passed passed done ");
}

TEST_F(ApplierTest, AClearedFaultIsForgottenAfterAWhile)
{
    StartHosts(40, 0);
    StartApplier(0, 1);
    const std::string expected = Expected();
    ExpectFaults(expected);
    const auto keys = [] {
        return AskEngine([](Engine& connection) {
            jsStreamInfo* info = nullptr;
            CHILD_CHECK(js_GetStreamInfo(&info, connection.Streams(), BucketStream(FaultBucket).c_str(), nullptr,
                                         nullptr) == NATS_OK);
            std::string count = std::to_string(info->State.Msgs);
            jsStreamInfo_Destroy(info);
            return count;
        });
    };
    const std::string wanted = std::to_string(CountOf(expected, "\n") + 1); // and the place
    EXPECT_TRUE(WaitUntil([&] { return keys() == wanted; })) << keys() << " of " << wanted;
    StartHosts(40, 0, 3);
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, KilledAtRandomWithTheEngineItAgreesWithTheHosts)
{
    const int messages = 200;
    for (int i = 0; i < Most; i++)
        StartApplier(i);
    StartHosts(messages, 2000);
    std::mt19937 random(3);
    int kills = 0, stops = 0, restarts = 0;
    for (int stored = 0; stored < messages * Hosts && !HasFailure(); stored = shared->stored) {
        usleep(random() % 200000);
        const int victim = static_cast<int>(random() % Most);
        switch (random() % 6) {
        case 0:
            engine.End();
            usleep(random() % 200000);
            engine.Start();
            restarts++;
            break;
        case 1:
            kill(appliers[victim], SIGSTOP);
            usleep(1000000 + random() % 500000);
            kill(appliers[victim], SIGCONT);
            stops++;
            break;
        default:
            EndApplier(victim);
            StartApplier(victim);
            kills++;
        }
    }
    EXPECT_GT(kills + stops + restarts, 5);
    const std::string expected = Expected();
    ExpectFaults(expected);
    ExpectTrimmed(Attachments(expected));
}

} // namespace
