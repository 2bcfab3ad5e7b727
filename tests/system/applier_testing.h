// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the applier share: an engine, hosts whose changes are made up, and appliers.
#ifndef TESTS_SYSTEM_APPLIER_TESTING_H
#define TESTS_SYSTEM_APPLIER_TESTING_H

#include <csignal>
#include <iostream>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fleet/applier.h"
#include "tests/system/centre_testing.h"

namespace centre_testing {

using fleet::Applier;
using fleet::Engine;

const int Hosts = 5;
const int Most = 3; // appliers

struct Shared {
    volatile int stored;        // messages, by the hosts
    volatile bool active[Most]; // which applier works
    volatile long runs[Most];
    volatile int looks[Most];     // at a part of the bucket
    volatile int stopAfter[Most]; // of these it stops, as SIGSTOP would; 0: never
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
        Urls = engine.Urls();
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
        state->looks[i] = 0;
        appliers[i] = StartChild([=] {
            const std::string name = "centre-" + std::to_string(i);
            Engine connection(Address(name.c_str()));
            Applier applier(connection, name, keepSeconds, 1);
            for (;;) {
                const Applier::Step step = applier.Run(100);
                state->active[i] = applier.IsActive();
                state->runs[i] = state->runs[i] + 1;
                if (step == Applier::Looked) {
                    state->looks[i] = state->looks[i] + 1;
                    if (state->looks[i] == state->stopAfter[i])
                        raise(SIGSTOP);
                }
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
    EngineServers engine;
    Shared* shared = nullptr;
    pid_t appliers[Most] = {};
    pid_t hosts = 0;
};

} // namespace centre_testing

#endif
